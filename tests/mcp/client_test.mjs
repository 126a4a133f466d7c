// End to end: the official MCP TypeScript SDK's client drives quorvel-mcp,
// which drives the bridge, against the GTK fixture in a virtual desktop
// (scripts/desktop). The build copies this file next to the SDK that
// scripts/deps installs (<build>/mcp-client), so that the import finds it.
//
//   node client_test.mjs --server PATH --fixture PATH
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { inflateSync } from 'node:zlib';
import { parseArgs } from 'node:util';

const { values: paths } = parseArgs({ options: { server: { type: 'string' }, fixture: { type: 'string' } } });
assert.ok(paths.server && paths.fixture, 'usage: node client_test.mjs --server PATH --fixture PATH');

// A missing SDK fails the test: it is never skipped.
let Client, StdioClientTransport, LATEST_PROTOCOL_VERSION;
try {
  ({ Client } = await import('@modelcontextprotocol/sdk/client/index.js'));
  ({ StdioClientTransport } = await import('@modelcontextprotocol/sdk/client/stdio.js'));
  ({ LATEST_PROTOCOL_VERSION } = await import('@modelcontextprotocol/sdk/types.js'));
} catch (error) {
  console.error(`The MCP SDK is not installed beside ${import.meta.filename}; ` +
                `scripts/deps --mcp-client DIR installs it (scripts/build does). ${error.message}`);
  process.exit(1);
}

const WINDOW_CHANGED = 'The foreground window changed. Observe again before sending input.';

// The fixture window, driven through its command pipe (tests/e2e/fixture.c).
class Fixture {
  constructor(path) {
    this.process = spawn(path, [], { stdio: ['pipe', 'pipe', 'ignore'] });
    this.lines = [];
    this.waiting = null;
    let pending = '';
    this.process.stdout.setEncoding('utf8').on('data', (chunk) => {
      pending += chunk;
      for (let end; (end = pending.indexOf('\n')) >= 0; pending = pending.slice(end + 1)) {
        this.lines.push(pending.slice(0, end));
      }
      this.waiting?.();
    });
  }
  async line() {
    const deadline = Date.now() + 30000;
    while (!this.lines.length) {
      if (Date.now() > deadline) throw new Error('the fixture did not answer');
      await new Promise((resolve) => { this.waiting = resolve; setTimeout(resolve, 200); });
    }
    return this.lines.shift();
  }
  async command(text) {
    this.process.stdin.write(`${text}\n`);
    assert.equal(await this.line(), 'ok', `fixture command ${text}`);
  }
  close() { this.process.stdin.end(); }
}

const text = (result) => result.content.find((c) => c.type === 'text')?.text ?? '';

// The view's line for a node, by role and name: { id, line }.
function nodeLine(view, role, name) {
  const prefix = ` ${role} ${JSON.stringify(name)}`;
  const line = view.split('\n').find((l) => l.slice(l.indexOf(' ')).startsWith(prefix));
  assert.ok(line, `no ${role} ${name} in the view:\n${view}`);
  return { id: line.slice(0, line.indexOf(' ')), line };
}

// Width and height from the PNG's header, after checking that the image data
// inflates to exactly that many rows of 8-bit RGB or RGBA pixels.
function pngSize(base64) {
  const png = Buffer.from(base64, 'base64');
  assert.deepEqual([...png.subarray(0, 8)], [0x89, 0x50, 0x4e, 0x47, 0x0d, 0x0a, 0x1a, 0x0a], 'PNG signature');
  let width = 0, height = 0, channels = 0;
  const data = [];
  for (let at = 8; at < png.length;) {
    const length = png.readUInt32BE(at);
    const type = png.toString('latin1', at + 4, at + 8);
    const body = png.subarray(at + 8, at + 8 + length);
    if (type === 'IHDR') {
      width = body.readUInt32BE(0);
      height = body.readUInt32BE(4);
      assert.equal(body[8], 8, 'bit depth');
      channels = { 2: 3, 6: 4 }[body[9]];
      assert.ok(channels, `colour type ${body[9]}`);
    }
    if (type === 'IDAT') data.push(body);
    at += 12 + length;
  }
  assert.equal(inflateSync(Buffer.concat(data)).length, height * (1 + width * channels), 'pixel rows');
  return { width, height };
}

test('an MCP client observes and operates the fixture through quorvel-mcp', async (t) => {
  const fixture = new Fixture(paths.fixture);
  assert.equal(await fixture.line(), 'ready');
  const client = new Client({ name: 'quorvel-e2e', version: '1.0.0' });
  // The session's display and buses reach the bridge through the server.
  const transport = new StdioClientTransport({ command: paths.server, env: process.env, stderr: 'inherit' });
  // The client hands the negotiated version to transports that take one.
  let negotiated;
  transport.setProtocolVersion = (version) => { negotiated = version; };
  await client.connect(transport);
  t.after(async () => { await client.close(); fixture.close(); });

  const observe = async () => {
    const result = await client.callTool({ name: 'observe', arguments: {} });
    assert.ok(!result.isError, text(result));
    return result;
  };

  await t.test('initialises at the newest protocol version and lists the tools with schemas', async () => {
    assert.equal(client.getServerVersion().name, 'quorvel-mcp');
    assert.ok(client.getServerCapabilities().tools);
    assert.equal(negotiated, LATEST_PROTOCOL_VERSION);
    const { tools } = await client.listTools();
    assert.deepEqual(tools.map((tool) => tool.name), ['observe', 'click', 'type_text', 'press_key', 'scroll']);
    for (const tool of tools) assert.equal(tool.inputSchema.type, 'object', tool.name);
    await client.ping();
  });

  let first;  // the first observation's view
  await t.test('observes the window: a text view and a PNG of the window', async () => {
    const result = await observe();
    first = text(result);
    const [, width, height] = first.match(/^Window "Quorvel Fixture" .* at \(-?\d+,-?\d+\) (\d+)x(\d+), observation 1\n/) ?? [];
    assert.ok(width, first.split('\n')[0]);
    const image = result.content.find((c) => c.type === 'image');
    assert.equal(image?.mimeType, 'image/png');
    assert.deepEqual(pngSize(image.data), { width: Number(width), height: Number(height) });
    nodeLine(first, 'AXButton', 'Increment');
    assert.match(nodeLine(first, 'AXTextField', 'Name').line, / editable @\(\d+,\d+\)$/);
  });

  await t.test('types mixed Unicode into the Name entry by its id', async () => {
    const typed = 'Ada Łukasiewicz – Ωμέγα 東京 😀 ok';
    const entry = nodeLine(first, 'AXTextField', 'Name');
    const result = await client.callTool({ name: 'type_text', arguments: { id: entry.id, text: typed, replace: true } });
    assert.ok(!result.isError, text(result));
    const view = text(await observe());
    assert.ok(nodeLine(view, 'AXTextField', 'Name').line.includes(` value=${JSON.stringify(typed)} `), view);
  });

  await t.test('clicks the Increment button by its id', async () => {
    const view = text(await observe());
    const result = await client.callTool({ name: 'click', arguments: { id: nodeLine(view, 'AXButton', 'Increment').id } });
    assert.ok(!result.isError, text(result));
    nodeLine(text(await observe()), 'AXStaticText', 'Count: 1');
  });

  await t.test('refuses an id from an earlier observation', async () => {
    const stale = nodeLine(first, 'AXButton', 'Increment').id;
    const result = await client.callTool({ name: 'click', arguments: { id: stale } });
    assert.equal(result.isError, true);
    assert.equal(text(result), `Node ${stale} is from an earlier observation. Observe again.`);
  });

  await t.test('refuses input once the window has moved, and posts none', async () => {
    const increment = nodeLine(text(await observe()), 'AXButton', 'Increment').id;
    await fixture.command('move 40 30');
    const result = await client.callTool({ name: 'click', arguments: { id: increment } });
    assert.equal(result.isError, true);
    assert.equal(text(result), WINDOW_CHANGED);
    nodeLine(text(await observe()), 'AXStaticText', 'Count: 1');
  });
});
