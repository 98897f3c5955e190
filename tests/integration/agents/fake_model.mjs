// A scripted model on 127.0.0.1 for the end-to-end agent tests. It speaks one
// agent's wire format (Anthropic Messages, OpenAI Responses or OpenAI chat
// completions, all streamed) and plays a fixed list of Studio tool calls,
// using the names the agent itself offers in the request's tools array. When
// a Studio tool is not offered but a tool search is (agents that defer MCP
// tools), it first loads the Studio tools through that search, as a real
// model does. Every Studio result it receives is appended to the transcript
// (JSON lines) for the test to judge; the model itself judges nothing.
//
//   node fake_model.mjs <anthropic|responses|chat> <script.json> <transcript.jsonl>
//
// The script is {"steps": [{"tool": "...", "arguments": {...}, "fixTypo": true, "until": "..."}, ...]}.
// "fixTypo": when the result names a parameter with a "did you mean", the
// same call is made again with the suggested name, before the next step.
// "until": the call is repeated (up to 30 times) until its result holds this text.
// Prints "listening <port>" once it accepts connections.
import fs from 'node:fs';
import http from 'node:http';

const [dialect, scriptFile, transcriptFile] = process.argv.slice(2);
const steps = JSON.parse(fs.readFileSync(scriptFile, 'utf8')).steps;
const calls = new Map();  // call id -> {step, tool, arguments} of every call this model made
const recorded = new Set();
let nextId = 0;
let finished = false;
let searched = false;  // the Studio tools were asked for through the agent's tool search

const note = (entry) => fs.appendFileSync(transcriptFile, JSON.stringify(entry) + '\n');

// --- what the agent sent, in a common shape -------------------------------

// Tools sent with their schema; a tool marked for deferred loading is known
// by name only and cannot be called until the tool search has loaded it.
// A Responses namespace's functions are named "<namespace>::<function>".
const toolNames = (body, deferred = false) =>
  (body.tools ?? [])
    .filter((t) => !!t.defer_loading === deferred)
    .flatMap((t) => (t.type === 'namespace' ? (t.tools ?? []).map((f) => `${t.name}::${f.name}`) : [t.name ?? t.function?.name]))
    .filter(Boolean);

function text(content) {
  if (typeof content === 'string') return content;
  if (Array.isArray(content)) return content.map((c) => (typeof c === 'string' ? c : c.text ?? text(c.content) ?? '')).join('');
  return '';
}

// The results of tool calls found in the conversation, in order: {id, text}.
function results(body) {
  const found = [];
  if (dialect === 'anthropic') {
    for (const m of body.messages ?? [])
      for (const c of Array.isArray(m.content) ? m.content : [])
        if (c.type === 'tool_result') found.push({ id: c.tool_use_id, text: text(c.content), isError: !!c.is_error });
  } else if (dialect === 'responses') {
    for (const item of body.input ?? [])
      if (item.type === 'function_call_output') found.push({ id: item.call_id, text: text(item.output) });
  } else {
    for (const m of body.messages ?? [])
      if (m.role === 'tool') found.push({ id: m.tool_call_id, text: text(m.content) });
  }
  return found;
}

// Deferred tools that a tool search in this conversation has loaded: its
// result refers to them, and from then on they are callable.
function loaded(body) {
  const names = [];
  for (const m of body.messages ?? [])
    for (const c of Array.isArray(m.content) ? m.content : [])
      for (const r of c.type === 'tool_result' && Array.isArray(c.content) ? c.content : [])
        if (r.type === 'tool_reference') names.push(r.tool_name);
  return names;
}

// Everything the agent wrote to the model, where deferred tool names appear.
const allText = (body) => JSON.stringify([body.system, body.instructions, body.messages, body.input]);

// --- deciding the next call ------------------------------------------------

const offeredName = (names, tool) =>
  names.find((n) => n === tool) ?? names.find((n) => /vantoric[-_]studio/.test(n) && ['__', '_', '::'].some((s) => n.endsWith(s + tool)));

function fixedArguments(args, resultText) {
  const typo = /"([^"]+)" \(did you mean "([^"]+)"\?\)/.exec(resultText);
  if (!typo || !(typo[1] in args)) return null;
  const fixed = {};
  for (const [k, v] of Object.entries(args)) fixed[k === typo[1] ? typo[2] : k] = v;
  return fixed;
}

// {call: {name, arguments}} or {text} for the reply to this request.
function decide(body) {
  const names = [...toolNames(body), ...loaded(body).filter((n) => toolNames(body, true).includes(n))];
  let position = 0;  // the step to play next
  let retry = null;
  const made = {};  // step -> its calls answered so far
  for (const r of results(body)) {
    const call = calls.get(r.id);
    if (!call) continue;
    if (!recorded.has(r.id)) {
      recorded.add(r.id);
      note({ step: call.step, tool: call.tool, name: call.name, arguments: call.arguments, result: r.text || loaded(body).join(','), isError: r.isError ?? null });
    }
    if (call.step === undefined) continue;
    const until = steps[call.step].until;
    made[call.step] = (made[call.step] ?? 0) + 1;
    const again = until && !r.text.includes(until) && made[call.step] < 30;
    position = again ? call.step : call.step + 1;
    retry = null;
    if (steps[call.step].fixTypo && !call.retried) {
      const fixed = fixedArguments(call.arguments, r.text);
      if (fixed) retry = { ...call, arguments: fixed, retried: true };
    }
  }
  if (retry) return { call: retry };
  if (position >= steps.length) {
    if (!finished) note({ done: true });
    finished = true;
    return { text: 'All done.' };
  }
  const step = steps[position];
  const name = offeredName(names, step.tool);
  if (name) return { call: { step: position, tool: step.tool, name, arguments: step.arguments ?? {} } };

  const search = names.find((n) => /tool_?search/i.test(n));
  const named = [...toolNames(body, true), ...(allText(body).match(/mcp__vantoric-studio__[A-Za-z0-9_]+/g) ?? [])];
  const deferred = [...new Set(named.filter((n) => n.startsWith('mcp__vantoric-studio__')))];
  if (search && deferred.length && !searched) {
    searched = true;
    return { call: { search: true, tool: 'tool search', name: search, arguments: { query: 'select:' + deferred.join(','), max_results: deferred.length } } };
  }
  note({ missing: step.tool, offered: names });
  finished = true;
  return { text: `No tool for ${step.tool}.` };
}

// --- answering in the agent's wire format ----------------------------------

function sse(res, events) {
  res.writeHead(200, { 'content-type': 'text/event-stream', 'cache-control': 'no-cache' });
  for (const [event, data] of events) res.write((event ? `event: ${event}\n` : '') + `data: ${typeof data === 'string' ? data : JSON.stringify(data)}\n\n`);
  res.end();
}

const namespaced = (name) => (name.includes('::') ? { namespace: name.split('::')[0], name: name.split('::')[1] } : { name });

function answer(body, res) {
  const main = toolNames(body).length > 0;
  const reply = main && !finished ? decide(body) : { text: 'All done.' };
  const id = `call_${++nextId}`;
  if (reply.call) calls.set(id, reply.call);
  const args = JSON.stringify(reply.call?.arguments ?? {});

  if (dialect === 'anthropic') {
    const block = reply.call ? { type: 'tool_use', id, name: reply.call.name, input: {} } : { type: 'text', text: '' };
    const delta = reply.call ? { type: 'input_json_delta', partial_json: args } : { type: 'text_delta', text: reply.text };
    const usage = { input_tokens: 10, output_tokens: 10 };
    const ev = (type, data) => [type, { type, ...data }];
    return sse(res, [
      ev('message_start', { message: { id: `msg_${nextId}`, type: 'message', role: 'assistant', model: body.model, content: [], stop_reason: null, stop_sequence: null, usage } }),
      ev('content_block_start', { index: 0, content_block: block }),
      ev('content_block_delta', { index: 0, delta }),
      ev('content_block_stop', { index: 0 }),
      ev('message_delta', { delta: { stop_reason: reply.call ? 'tool_use' : 'end_turn', stop_sequence: null }, usage }),
      ev('message_stop', {}),
    ]);
  }
  if (dialect === 'responses') {
    const item = reply.call
      ? { type: 'function_call', id: `fc_${nextId}`, call_id: id, ...namespaced(reply.call.name), arguments: args, status: 'completed' }
      : { type: 'message', id: `msg_${nextId}`, role: 'assistant', status: 'completed', content: [{ type: 'output_text', text: reply.text, annotations: [] }] };
    const response = { id: `resp_${nextId}`, object: 'response', status: 'completed', model: body.model, output: [item],
      usage: { input_tokens: 10, input_tokens_details: { cached_tokens: 0 }, output_tokens: 10, output_tokens_details: { reasoning_tokens: 0 }, total_tokens: 20 } };
    const ev = (type, data) => [type, { type, ...data }];
    return sse(res, [
      ev('response.created', { response: { ...response, status: 'in_progress', output: [] } }),
      ev('response.output_item.added', { output_index: 0, item }),
      ev('response.output_item.done', { output_index: 0, item }),
      ev('response.completed', { response }),
    ]);
  }
  const chunk = (delta, finish) => ['', { id: `chatcmpl-${nextId}`, object: 'chat.completion.chunk', created: Math.floor(Date.now() / 1000), model: body.model,
    choices: [{ index: 0, delta, finish_reason: finish }] }];
  const delta = reply.call
    ? { role: 'assistant', content: null, tool_calls: [{ index: 0, id, type: 'function', function: { name: reply.call.name, arguments: args } }] }
    : { role: 'assistant', content: reply.text };
  const last = chunk({}, reply.call ? 'tool_calls' : 'stop');
  last[1].usage = { prompt_tokens: 10, completion_tokens: 10, total_tokens: 20 };
  return sse(res, [chunk(delta, null), last, ['', '[DONE]']]);
}

const server = http.createServer((req, res) => {
  let raw = '';
  req.on('data', (c) => (raw += c));
  req.on('end', () => {
    const body = raw ? JSON.parse(raw) : {};
    note({ request: req.method + ' ' + req.url, model: body.model ?? null, tools: toolNames(body), deferred: toolNames(body, true) });
    if (req.method === 'POST' && /\/(messages|responses|chat\/completions)$/.test(req.url.split('?')[0])) return answer(body, res);
    if (req.url.includes('count_tokens')) return res.writeHead(200, { 'content-type': 'application/json' }).end('{"input_tokens":10}');
    if (req.url.endsWith('/models')) return res.writeHead(200, { 'content-type': 'application/json' }).end('{"object":"list","data":[{"id":"fake-model","object":"model"}]}');
    res.writeHead(404, { 'content-type': 'application/json' }).end('{"error":{"message":"not here"}}');
  });
});
server.listen(0, '127.0.0.1', () => console.log(`listening ${server.address().port}`));
