// Plays an agent: starts the bridge as a stdio MCP server, sends a few
// requests one after another and prints each request and its reply.
// Arguments: the bridge binary, the Studio bundle it is to serve, and the
// agent's working folder (the bridge's working directory).
import { spawn } from 'node:child_process';
import fs from 'node:fs';
import path from 'node:path';
import readline from 'node:readline';

const [bridgePath, app, workFolder] = process.argv.slice(2);
const color = process.stdout.isTTY;
const paint = (code, text) => (color ? `\x1b[${code}m${text}\x1b[0m` : text);

const bridge = spawn(bridgePath, [], {
  cwd: workFolder,
  env: { ...process.env, VANTORIC_STUDIO_APP: app },
  stdio: ['pipe', 'pipe', 'inherit'],
});
const waiting = new Map();
readline.createInterface({ input: bridge.stdout }).on('line', (line) => {
  const reply = JSON.parse(line);
  if (reply.method === 'notifications/progress') {
    const { progress, total, message } = reply.params;
    console.log(paint('2', `bridge -> agent (progress) ${message}: ${progress} of ${total}`));
    return;
  }
  const resolve = waiting.get(JSON.stringify(reply.id));
  if (resolve) {
    waiting.delete(JSON.stringify(reply.id));
    resolve({ line, reply });
  } else {
    console.log(paint('31', `unexpected: ${line}`));
  }
});

// JSON indented only where a value does not fit on one line.
function readable(value, indent = '') {
  const flat = JSON.stringify(value);
  if (flat.length + indent.length <= 100 || value === null || typeof value !== 'object') return flat;
  const inner = indent + '  ';
  const items = Array.isArray(value)
    ? value.map((v) => inner + readable(v, inner))
    : Object.entries(value).map(([k, v]) => `${inner}${JSON.stringify(k)}: ${readable(v, inner)}`);
  const [open, close] = Array.isArray(value) ? ['[', ']'] : ['{', '}'];
  return `${open}\n${items.join(',\n')}\n${indent}${close}`;
}

let nextId = 0;
function show(title, direction, text) {
  if (title) console.log('\n' + paint('1', `== ${title}`));
  console.log(paint(direction === 'in' ? '36' : '33', direction === 'in' ? 'agent -> bridge' : 'bridge -> agent'));
  console.log(text);
}

async function ask(title, method, params, summarise) {
  const request = { jsonrpc: '2.0', id: ++nextId, method, ...(params ? { params } : {}) };
  const line = JSON.stringify(request);
  show(title, 'in', line);
  const answered = new Promise((resolve) => waiting.set(JSON.stringify(request.id), resolve));
  bridge.stdin.write(line + '\n');
  const { reply } = await answered;
  show(null, 'out', summarise ? summarise(reply) : readable(reply));
  return reply;
}

function tell(title, method, params) {
  const line = JSON.stringify({ jsonrpc: '2.0', method, ...(params ? { params } : {}) });
  show(title, 'in', line);
  bridge.stdin.write(line + '\n');
  console.log(paint('2', '(a notification: no reply)'));
}

const toolSummary = (reply) => {
  const tools = reply.result.tools;
  const rows = tools.map((t) => `  ${t.name}(${Object.keys(t.inputSchema?.properties ?? {}).join(', ')})`);
  return `{"jsonrpc":"2.0","id":${reply.id},"result":{"tools":[ ${tools.length} tools ]}}\n` + rows.join('\n');
};

await ask('Session set-up', 'initialize', {
  protocolVersion: '2025-06-18',
  capabilities: {},
  clientInfo: { name: 'demo-agent', title: 'Demo Agent', version: '1.0' },
});
tell('The agent confirms', 'notifications/initialized');
await ask('Which tools does Studio offer?', 'tools/list', undefined, toolSummary);
await ask('Which prompts?', 'prompts/list');
await ask('A prompt, filled with the agent\'s arguments', 'prompts/get', {
  name: 'rough_cut',
  arguments: { folder: '~/Movies/Trip', style: 'lively' },
});
await ask('A tool call with a misspelled parameter: refused before anything reaches Studio', 'tools/call', {
  name: 'export_video',
  arguments: { action: 'start', pathh: '~/Movies/trip.mp4' },
});
await ask('Still alive', 'ping');
await ask(
  'A tool Studio carries out: the bridge launches Studio in the background, is handed a link, forwards the call',
  'tools/call',
  { name: 'studio_status', arguments: {} },
);
await ask('The next call goes over the same link', 'tools/call', {
  name: 'timeline',
  arguments: { action: 'list' },
});

await ask('Studio needs a project to work in', 'tools/call', {
  name: 'project',
  arguments: { action: 'create', name: 'Demo Trip' },
});

// A clip on the agent's side of the machine, as a camera would leave it.
fs.mkdirSync(path.join(workFolder, 'footage'), { recursive: true });
fs.writeFileSync(path.join(workFolder, 'footage', 'beach.mov'), Buffer.alloc(3 << 20, 7));
await ask(
  'Import a clip by its path: the bridge uploads the file and hands Studio an upload id instead',
  'tools/call',
  { name: 'import_media', arguments: { paths: ['footage/beach.mov'] }, _meta: { progressToken: 'import' } },
);

const exported = await ask(
  'Export to a path in the working directory: the bridge waits for the render and copies the video there',
  'tools/call',
  { name: 'export_video', arguments: { action: 'start', path: 'renders/demo.mp4' }, _meta: { progressToken: 'export' } },
);
const savedTo = JSON.parse(exported.result.content[0].text).file?.savedTo;
if (!savedTo) {
  console.log(paint('31', 'the export was not saved'));
  process.exit(1);
}
const saved = fs.statSync(savedTo);
console.log(
  '\n' + paint('1', `== Saved: ${savedTo}`) +
    `\n${saved.size} bytes, permissions ${(saved.mode & 0o777).toString(8)}, in the agent's working folder ${workFolder}`,
);

bridge.stdin.end();
const code = await new Promise((resolve) => bridge.on('exit', resolve));
console.log('\n' + paint('1', `== Input closed: the bridge exited with status ${code}`));
process.exit(code === 0 ? 0 : 1);
