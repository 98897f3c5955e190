// An agent built on the official MCP TypeScript SDK v2 client: it launches
// the bridge as a stdio server in the given negotiation mode ("pin": only
// 2026-07-28, "auto": probe, fall back to a handshake when the probe fails),
// goes through a session with Studio and prints what it got as one JSON
// line. Arguments: bridge binary, npm folder of the build tree, mode. The
// environment (session bus, Studio bundle) is passed on to the bridge.
import { pathToFileURL } from 'node:url';
import path from 'node:path';

const [bridge, npmDir, mode] = process.argv.slice(2);
const root = path.join(npmDir, 'node_modules', '@modelcontextprotocol', 'client', 'dist');
const { Client } = await import(pathToFileURL(path.join(root, 'index.mjs')).href);
const { StdioClientTransport } = await import(pathToFileURL(path.join(root, 'stdio.mjs')).href);

const transport = new StdioClientTransport({ command: bridge, args: [], env: { ...process.env }, stderr: 'pipe' });
const client = new Client(
  { name: 'sdk-v2-interop', title: 'SDK v2 Interop', version: '1.0.0' },
  { versionNegotiation: { mode: mode === 'pin' ? { pin: '2026-07-28' } : 'auto' } },
);
await client.connect(transport);

// Every message of the session proper, both ways, as the wire carried it.
const wire = [];
const received = transport.onmessage;
transport.onmessage = (message, extra) => {
  wire.push({ from: 'bridge', message });
  received(message, extra);
};
const sendMessage = transport.send.bind(transport);
transport.send = (message, options) => {
  wire.push({ from: 'client', message });
  return sendMessage(message, options);
};

const out = {
  era: client.getProtocolEra(),
  version: client.getNegotiatedProtocolVersion(),
  serverVersion: client.getServerVersion(),
  capabilities: client.getServerCapabilities(),
  instructions: client.getInstructions(),
  discover: client.getDiscoverResult() ?? null,
  tools: (await client.listTools()).tools,
  prompts: (await client.listPrompts()).prompts,
  prompt: await client.getPrompt({ name: 'rough_cut', arguments: { folder: '/media/clips', style: 'lively' } }),
  refused: await client.callTool({ name: 'export_video', arguments: { action: 'start', pathh: 'out.mp4' } }),
  project: await client.callTool({ name: 'project', arguments: { action: 'create', name: 'Trip' } }),
};

const progress = [];
out.exported = await client.callTool(
  { name: 'export_video', arguments: { action: 'start' } },
  { onprogress: (p) => progress.push(p), resetTimeoutOnProgress: true },
);
out.progress = progress;

// A call Studio takes its time over, cancelled by the agent.
const abort = new AbortController();
const slow = client.callTool({ name: 'timeline', arguments: { action: 'list' } }, { signal: abort.signal });
setTimeout(() => abort.abort('changed my mind'), 300);
try {
  await slow;
  out.cancelled = 'answered';
} catch (error) {
  out.cancelled = String(error?.name ?? error);
}
// Longer than Studio's delay: an answer the bridge should not have written
// would be here by now.
await new Promise((resolve) => setTimeout(resolve, 2500));
out.after = await client.callTool({ name: 'export_video', arguments: { action: 'status' } });
await client.close();

const sent = wire.filter((w) => w.from === 'client').map((w) => w.message);
const cancelledCall = sent.find((m) => m.method === 'tools/call' && m.params?.name === 'timeline');
out.cancelNotice = sent.find((m) => m.method === 'notifications/cancelled') ?? null;
out.cancelledId = cancelledCall?.id ?? null;
out.repliesToCancelled = wire.filter((w) => w.from === 'bridge' && cancelledCall && w.message.id === cancelledCall.id).length;
out.sentMeta = cancelledCall?.params?._meta ?? null;
out.progressOnWire = wire
  .filter((w) => w.from === 'bridge' && w.message.method === 'notifications/progress')
  .map((w) => w.message.params);
out.rawResults = wire.filter((w) => w.from === 'bridge' && w.message.result).map((w) => w.message.result);
console.log(JSON.stringify(out));
