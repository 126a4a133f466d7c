// What the MCP server adds to an observation, on the GTK fixture in a virtual
// desktop: the median time of the bridge's own "observe" (with and without
// the image) against an "observe" tool call through quorvel-mcp, made by the
// official MCP client SDK; and the size of the server's text view against
// the raw JSON of the same window's nodes. Run by bench/mcp-observation.
//
//   node mcp_observation.mjs --bridge PATH --server PATH --fixture PATH [--runs N]
import { spawn, spawnSync } from 'node:child_process';
import { parseArgs } from 'node:util';
import { Client } from '@modelcontextprotocol/sdk/client/index.js';
import { StdioClientTransport } from '@modelcontextprotocol/sdk/client/stdio.js';

const { values: options } = parseArgs({
  options: {
    bridge: { type: 'string' }, server: { type: 'string' }, fixture: { type: 'string' },
    runs: { type: 'string', default: '7' },
  },
});
const runs = Number(options.runs);

const fixture = spawn(options.fixture, [], { stdio: ['pipe', 'pipe', 'ignore'] });
await new Promise((resolve, reject) => {
  fixture.stdout.setEncoding('utf8').on('data', (text) => text.includes('ready') && resolve());
  fixture.on('exit', () => reject(new Error('the fixture ended')));
});

const client = new Client({ name: 'quorvel-bench', version: '1.0.0' });
await client.connect(new StdioClientTransport({
  command: options.server, args: ['--bridge', options.bridge], env: process.env, stderr: 'inherit',
}));

const milliseconds = (start) => Number(process.hrtime.bigint() - start) / 1e6;
const median = (values) => [...values].sort((a, b) => a - b)[Math.floor(values.length / 2)];

function bridgeObserve(image) {
  const request = { version: 1, operation: 'observe', ...(image ? { image: 'png' } : {}) };
  const start = process.hrtime.bigint();
  const run = spawnSync(options.bridge, { input: JSON.stringify(request), maxBuffer: 1 << 28 });
  const time = milliseconds(start);
  const answer = JSON.parse(run.stdout.toString());
  if (!answer.ok) throw new Error(`bridge: ${answer.error}`);
  return { time, answer };
}

async function toolObserve() {
  const start = process.hrtime.bigint();
  const result = await client.callTool({ name: 'observe', arguments: {} });
  const time = milliseconds(start);
  if (result.isError) throw new Error(`tool: ${result.content[0].text}`);
  return { time, view: result.content.find((c) => c.type === 'text').text };
}

// One of each first, so that every measured run finds Tesseract's data and
// the accessibility tree warm.
bridgeObserve(true);
await toolObserve();
const plain = [], withImage = [], tool = [];
let answer, view;
for (let i = 0; i < runs; i++) {
  plain.push(bridgeObserve(false).time);
  ({ time: withImage[i], answer } = bridgeObserve(true));
  ({ time: tool[i], view } = await toolObserve());
}
await client.close();
fixture.stdin.end();

const bytes = (text) => Buffer.byteLength(text, 'utf8');
const signed = (ms) => `${ms >= 0 ? '+' : ''}${ms.toFixed(0)} ms`;
const nodesJson = JSON.stringify(answer.result.nodes);
const b = median(plain), bi = median(withImage), t = median(tool);
console.log(`runs: ${runs}, median wall-clock times`);
console.log(`bridge "observe":                     ${b.toFixed(0)} ms`);
console.log(`bridge "observe" with "image":"png":  ${bi.toFixed(0)} ms (${signed(bi - b)} for the image)`);
console.log(`"observe" tool call via quorvel-mcp:  ${t.toFixed(0)} ms (${(t / b).toFixed(2)}x the bridge's "observe", ` +
            `${signed(t - bi)} against the bridge with the image)`);
console.log(`nodes: ${answer.result.nodes.length}; raw JSON of the nodes ${bytes(nodesJson)} bytes, ` +
            `text view ${bytes(view)} bytes (${view.split('\n').length} lines): ` +
            `${(bytes(view) / bytes(nodesJson) * 100).toFixed(1)}% of the raw JSON`);
console.log(`image: ${answer.result.image.width}x${answer.result.image.height}, ` +
            `${answer.result.image.data.length} bytes of base64`);
