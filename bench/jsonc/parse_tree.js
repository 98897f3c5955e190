// The same measurement with the npm package jsonc-parser: parseTree on the
// whole file, allowing comments and trailing commas as the C++ parser does.
// Prints key=value lines like jsonc_bench.
const fs = require('fs');
const { parseTree } = require('jsonc-parser');

const text = fs.readFileSync(process.argv[2], 'utf8');
const options = { disallowComments: false, allowTrailingComma: true };
const run = () => {
  const errors = [];
  const tree = parseTree(text, errors, options);
  if (!tree || errors.length) throw new Error(`jsonc-parser reported ${errors.length} errors`);
  return tree;
};
for (let i = 0; i < 3; i++) run();  // let the JIT settle
const seconds = [];
for (let i = 0; i < 15; i++) {
  const start = process.hrtime.bigint();
  run();
  seconds.push(Number(process.hrtime.bigint() - start) / 1e9);
}
seconds.sort((a, b) => a - b);
console.log(`parse_median=${seconds[Math.floor(seconds.length / 2)].toFixed(6)}`);
console.log(`parse_best=${seconds[0].toFixed(6)}`);
