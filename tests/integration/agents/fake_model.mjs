//   node fake_model.mjs <anthropic|responses|chat> <script.json> <transcript.jsonl>
// A scripted model on 127.0.0.1 speaking one agent's wire format (Anthropic
// Messages, OpenAI Responses or chat completions, all streamed). It plays the
// script, {"steps": [{"tool", "arguments", "fixTypo", "until"}, ...]}, by the
// tool names the agent offers, loading deferred tools first through the
// agent's tool search as a real model does. "fixTypo": a result suggesting a
// parameter name ("did you mean") gets the call again with it; "until": the
// call is repeated (at most 30 times) until its result holds this text. Every
// result goes to the transcript for the test to judge. Prints "listening <port>".
import fs from 'node:fs';
import http from 'node:http';

const [dialect, scriptFile, transcriptFile] = process.argv.slice(2);
const steps = JSON.parse(fs.readFileSync(scriptFile, 'utf8')).steps;
const calls = new Map(); // call id -> {step, tool, name, arguments} of every call this model made
const recorded = new Set();
let nextId = 0;
let finished = false;
let searched = false; // the Studio tools were asked for through the agent's tool search
const note = (entry) => fs.appendFileSync(transcriptFile, JSON.stringify(entry) + '\n');

// Tools offered (deferred: known by name only until the tool search loads
// them); a Responses namespace's functions are named "<namespace>::<function>".
const toolNames = (body, deferred = false) => (body.tools ?? [])
  .filter((t) => !!t.defer_loading === deferred)
  .flatMap((t) => (t.type === 'namespace' ? (t.tools ?? []).map((f) => `${t.name}::${f.name}`) : [t.name ?? t.function?.name]))
  .filter(Boolean);
const text = (c) => (typeof c === 'string' ? c : Array.isArray(c) ? c.map((x) => (typeof x === 'string' ? x : x.text ?? text(x.content) ?? '')).join('') : '');
const blocks = (body) => (body.messages ?? []).flatMap((m) => (Array.isArray(m.content) ? m.content : []));

// The results of tool calls found in the conversation, in order.
function results(body) {
  if (dialect === 'anthropic')
    return blocks(body).filter((c) => c.type === 'tool_result').map((c) => ({ id: c.tool_use_id, text: text(c.content) }));
  if (dialect === 'responses')
    return (body.input ?? []).filter((i) => i.type === 'function_call_output').map((i) => ({ id: i.call_id, text: text(i.output) }));
  return (body.messages ?? []).filter((m) => m.role === 'tool').map((m) => ({ id: m.tool_call_id, text: text(m.content) }));
}

// Deferred tools that a tool search in this conversation has loaded.
const loaded = (body) => blocks(body).filter((c) => c.type === 'tool_result' && Array.isArray(c.content))
  .flatMap((c) => c.content).filter((r) => r.type === 'tool_reference').map((r) => r.tool_name);

const offeredName = (names, tool) =>
  names.find((n) => n === tool) ?? names.find((n) => /vantoric[-_]studio/.test(n) && ['__', '_', '::'].some((s) => n.endsWith(s + tool)));

function fixedArguments(args, resultText) {
  const typo = /"([^"]+)" \(did you mean "([^"]+)"\?\)/.exec(resultText);
  if (!typo || !(typo[1] in args)) return null;
  return Object.fromEntries(Object.entries(args).map(([k, v]) => [k === typo[1] ? typo[2] : k, v]));
}

// {call: {name, arguments, ...}} or {text} for the reply to this request.
function decide(body) {
  const names = [...toolNames(body), ...loaded(body).filter((n) => toolNames(body, true).includes(n))];
  let position = 0; // the step to play next
  let retry = null;
  const made = {}; // step -> its calls answered so far
  for (const r of results(body)) {
    const call = calls.get(r.id);
    if (!call) continue;
    if (!recorded.has(r.id)) {
      recorded.add(r.id);
      note({ step: call.step, tool: call.tool, name: call.name, arguments: call.arguments, result: r.text || loaded(body).join(',') });
    }
    if (call.step === undefined) continue;
    made[call.step] = (made[call.step] ?? 0) + 1;
    const until = steps[call.step].until;
    position = until && !r.text.includes(until) && made[call.step] < 30 ? call.step : call.step + 1;
    const fixed = steps[call.step].fixTypo && !call.retried && fixedArguments(call.arguments, r.text);
    retry = fixed ? { ...call, arguments: fixed, retried: true } : null;
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
  // Deferred tools are named in the tools array, or only in what the agent wrote.
  const written = JSON.stringify([body.system, body.messages]).match(/mcp__vantoric-studio__\w+/g) ?? [];
  const deferred = [...new Set([...toolNames(body, true), ...written].filter((n) => n.startsWith('mcp__vantoric-studio__')))];
  if (search && deferred.length && !searched) {
    searched = true;
    return { call: { tool: 'tool search', name: search, arguments: { query: 'select:' + deferred.join(','), max_results: deferred.length } } };
  }
  note({ missing: step.tool, offered: names });
  finished = true;
  return { text: `No tool for ${step.tool}.` };
}

function sse(res, events) {
  res.writeHead(200, { 'content-type': 'text/event-stream', 'cache-control': 'no-cache' });
  for (const [event, data] of events) res.write((event ? `event: ${event}\n` : '') + `data: ${typeof data === 'string' ? data : JSON.stringify(data)}\n\n`);
  res.end();
}
const typed = (type, data) => [type, { type, ...data }];

function answer(body, res) {
  const reply = toolNames(body).length > 0 && !finished ? decide(body) : { text: 'All done.' };
  const id = `call_${++nextId}`;
  if (reply.call) calls.set(id, reply.call);
  const args = JSON.stringify(reply.call?.arguments ?? {});
  if (dialect === 'anthropic') {
    const usage = { input_tokens: 10, output_tokens: 10 };
    return sse(res, [
      typed('message_start', { message: { id: `msg_${nextId}`, type: 'message', role: 'assistant', model: body.model, content: [], stop_reason: null, stop_sequence: null, usage } }),
      typed('content_block_start', { index: 0, content_block: reply.call ? { type: 'tool_use', id, name: reply.call.name, input: {} } : { type: 'text', text: '' } }),
      typed('content_block_delta', { index: 0, delta: reply.call ? { type: 'input_json_delta', partial_json: args } : { type: 'text_delta', text: reply.text } }),
      typed('content_block_stop', { index: 0 }),
      typed('message_delta', { delta: { stop_reason: reply.call ? 'tool_use' : 'end_turn', stop_sequence: null }, usage }),
      typed('message_stop', {}),
    ]);
  }
  if (dialect === 'responses') {
    const [namespace, fn] = reply.call?.name.includes('::') ? reply.call.name.split('::') : [undefined, reply.call?.name];
    const item = reply.call
      ? { type: 'function_call', id: `fc_${nextId}`, call_id: id, ...(namespace ? { namespace } : {}), name: fn, arguments: args, status: 'completed' }
      : { type: 'message', id: `msg_${nextId}`, role: 'assistant', status: 'completed', content: [{ type: 'output_text', text: reply.text, annotations: [] }] };
    const response = { id: `resp_${nextId}`, object: 'response', status: 'completed', model: body.model, output: [item],
      usage: { input_tokens: 10, input_tokens_details: { cached_tokens: 0 }, output_tokens: 10, output_tokens_details: { reasoning_tokens: 0 }, total_tokens: 20 } };
    return sse(res, [
      typed('response.created', { response: { ...response, status: 'in_progress', output: [] } }),
      typed('response.output_item.added', { output_index: 0, item }),
      typed('response.output_item.done', { output_index: 0, item }),
      typed('response.completed', { response }),
    ]);
  }
  const chunk = (delta, finish) => ['', { id: `chatcmpl-${nextId}`, object: 'chat.completion.chunk', created: Math.floor(Date.now() / 1000), model: body.model, choices: [{ index: 0, delta, finish_reason: finish }] }];
  const last = chunk({}, reply.call ? 'tool_calls' : 'stop');
  last[1].usage = { prompt_tokens: 10, completion_tokens: 10, total_tokens: 20 };
  return sse(res, [chunk(reply.call
    ? { role: 'assistant', content: null, tool_calls: [{ index: 0, id, type: 'function', function: { name: reply.call.name, arguments: args } }] }
    : { role: 'assistant', content: reply.text }, null), last, ['', '[DONE]']]);
}

const server = http.createServer((req, res) => {
  let raw = '';
  req.on('data', (c) => (raw += c));
  req.on('end', () => {
    const body = raw ? JSON.parse(raw) : {};
    note({ request: req.method + ' ' + req.url, model: body.model ?? null, tools: toolNames(body), deferred: toolNames(body, true) });
    if (req.method === 'POST' && /\/(messages|responses|chat\/completions)$/.test(req.url.split('?')[0])) return answer(body, res);
    res.writeHead(404, { 'content-type': 'application/json' }).end('{"error":{"message":"not here"}}');
  });
});
server.listen(0, '127.0.0.1', () => console.log(`listening ${server.address().port}`));
