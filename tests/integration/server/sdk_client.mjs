// An agent built on an official MCP TypeScript SDK client: it launches the
// bridge (passing on its own environment), goes through a session with Studio
// and prints what it got, and what the wire carried, as one JSON line.
//   node sdk_client.mjs <bridge> <npm folder of the build tree> <v1|pin|auto>
// v1: the handshake client of @modelcontextprotocol/sdk; pin, auto: the v2
// client pinned to the stateless revision, or probing for it.
import { pathToFileURL } from 'node:url';
import path from 'node:path';

const [bridge, npmDir, mode] = process.argv.slice(2);
const v1 = mode === 'v1';
const load = (file) => import(pathToFileURL(path.join(npmDir, 'node_modules', '@modelcontextprotocol', file)).href);
const { Client } = await load(v1 ? 'sdk/dist/esm/client/index.js' : 'client/dist/index.mjs');
const { StdioClientTransport } = await load(v1 ? 'sdk/dist/esm/client/stdio.js' : 'client/dist/stdio.mjs');

const transport = new StdioClientTransport({ command: bridge, args: [], env: { ...process.env }, stderr: 'pipe' });
const client = new Client({ name: 'sdk-interop', title: 'SDK Interop', version: '1.0.0' },
  v1 ? {} : { versionNegotiation: { mode: mode === 'pin' ? { pin: '2026-07-28' } : 'auto' } });
await client.connect(transport);
// v1 takes a result schema before the options.
const callTool = (params, options) => (v1 ? client.callTool(params, undefined, options) : client.callTool(params, options));

// Every message of the session proper, both ways, as the wire carried it.
const wire = [];
const received = transport.onmessage;
transport.onmessage = (message, extra) => (wire.push({ from: 'bridge', message }), received(message, extra));
const sendMessage = transport.send.bind(transport);
transport.send = (message, options) => (wire.push({ from: 'client', message }), sendMessage(message, options));

const out = {
  era: client.getProtocolEra?.() ?? 'handshake',
  version: client.getNegotiatedProtocolVersion?.() ?? null,
  discover: client.getDiscoverResult?.() ?? null,
  serverVersion: client.getServerVersion(),
  instructions: client.getInstructions(),
  tools: (await client.listTools()).tools.map((tool) => tool.name),
  prompt: await client.getPrompt({ name: 'rough_cut', arguments: { folder: '/media/clips', style: 'lively' } }),
  refused: await callTool({ name: 'export_video', arguments: { action: 'start', pathh: 'out.mp4' } }),
  project: await callTool({ name: 'project', arguments: { action: 'create', name: 'Trip' } }),
};
out.exported = await callTool({ name: 'export_video', arguments: { action: 'start' } }, { onprogress: () => {}, resetTimeoutOnProgress: true });

// A call Studio takes its time over, cancelled by the agent.
const abort = new AbortController();
const slow = callTool({ name: 'timeline', arguments: { action: 'list' } }, { signal: abort.signal });
setTimeout(() => abort.abort('changed my mind'), 300);
await slow.catch(() => {});
// Longer than Studio's delay: an answer the bridge should not have written
// would be here by now.
await new Promise((resolve) => setTimeout(resolve, 2500));
out.after = await callTool({ name: 'export_video', arguments: { action: 'status' } });
await client.close();

const sent = wire.filter((w) => w.from === 'client').map((w) => w.message);
const fromBridge = wire.filter((w) => w.from === 'bridge').map((w) => w.message);
const cancelledCall = sent.find((m) => m.method === 'tools/call' && m.params?.name === 'timeline');
out.cancelNotice = sent.find((m) => m.method === 'notifications/cancelled')?.params.requestId ?? null;
out.cancelledId = cancelledCall.id;
out.repliesToCancelled = fromBridge.filter((m) => m.id === cancelledCall.id).length;
out.progressOnWire = fromBridge.filter((m) => m.method === 'notifications/progress').map((m) => m.params);
out.rawResults = fromBridge.filter((m) => m.result).map((m) => m.result);
console.log(JSON.stringify(out));
