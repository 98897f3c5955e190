// Plays an agent: starts the bridge as a stdio MCP server, sends a few
// requests one after another and prints each request and its reply.
// Arguments: the bridge binary and the Studio bundle it is to serve.
import { spawn } from 'node:child_process';
import readline from 'node:readline';

const [bridgePath, app] = process.argv.slice(2);
const color = process.stdout.isTTY;
const paint = (code, text) => (color ? `\x1b[${code}m${text}\x1b[0m` : text);

const bridge = spawn(bridgePath, [], {
  env: { ...process.env, VANTORIC_STUDIO_APP: app },
  stdio: ['pipe', 'pipe', 'inherit'],
});
const waiting = new Map();
readline.createInterface({ input: bridge.stdout }).on('line', (line) => {
  const reply = JSON.parse(line);
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

bridge.stdin.end();
const code = await new Promise((resolve) => bridge.on('exit', resolve));
console.log('\n' + paint('1', `== Input closed: the bridge exited with status ${code}`));
process.exit(code === 0 ? 0 : 1);
