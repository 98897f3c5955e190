// An agent built on the official MCP TypeScript SDK: it launches the bridge
// as a stdio server, goes through a short session and prints what it got as
// one JSON line. Arguments: bridge binary, Studio bundle, npm folder of the
// build tree (where the test set-up installed the SDK).
import { pathToFileURL } from 'node:url';
import path from 'node:path';

const [bridge, app, npmDir] = process.argv.slice(2);
const sdk = path.join(npmDir, 'node_modules', '@modelcontextprotocol', 'sdk', 'dist', 'esm');
const { Client } = await import(pathToFileURL(path.join(sdk, 'client', 'index.js')).href);
const { StdioClientTransport } = await import(pathToFileURL(path.join(sdk, 'client', 'stdio.js')).href);

const transport = new StdioClientTransport({
  command: bridge,
  args: [],
  env: { VANTORIC_STUDIO_APP: app, HOME: process.env.HOME ?? '/', PATH: process.env.PATH ?? '/usr/bin' },
  stderr: 'pipe',
});
const client = new Client({ name: 'sdk-interop', title: 'SDK Interop', version: '1.0.0' });
await client.connect(transport);

const out = {
  serverVersion: client.getServerVersion(),
  capabilities: client.getServerCapabilities(),
  instructions: client.getInstructions(),
  tools: (await client.listTools()).tools,
  prompts: (await client.listPrompts()).prompts,
  prompt: await client.getPrompt({ name: 'rough_cut', arguments: { folder: '/media/clips', style: 'lively' } }),
  call: await client.callTool({ name: 'export_video', arguments: { action: 'start', pathh: 'out.mp4' } }),
  ping: await client.ping(),
};
let unknownPrompt = null;
try {
  await client.getPrompt({ name: 'no_such_prompt' });
} catch (error) {
  unknownPrompt = { code: error.code, message: error.message };
}
out.unknownPrompt = unknownPrompt;
await client.close();
console.log(JSON.stringify(out));
