'use strict';
// Drives tcp_test_server with vscode-jsonrpc, a client written elsewhere,
// over TCP and over a Unix domain socket, with Content-Length framing:
// requests, an unknown method, notifications published back by the server,
// a registration notice, and a request that the server makes on the same
// connection through JSON_RPC_Session.
//
//   node interop.js path/to/tcp_test_server
//
// Exits 0 when all went as expected, 1 otherwise, 77 when vscode-jsonrpc
// is not installed (ctest reports that as skipped).
const assert = require('assert');
const { spawn } = require('child_process');
const net = require('net');
const fs = require('fs');
const os = require('os');
const path = require('path');

let rpc;
try {
  rpc = require('vscode-jsonrpc/node');
} catch (e) {
  console.log('SKIPPED: vscode-jsonrpc is missing from tests/interop/node_modules; scripts/setup.sh installs it');
  process.exit(77);
}

function fail(error) {
  console.error('FAILED:', error && error.stack ? error.stack : error);
  process.exit(1);
}

// Resolves with the params of the first notification of method.
function notified(connection, method) {
  return new Promise((resolve) => connection.onNotification(method, resolve));
}

// The server listens on a free TCP port, or on the Unix socket socketPath.
function startServer(program, socketPath) {
  return new Promise((resolve, reject) => {
    const child = spawn(program, socketPath ? [socketPath] : [], { stdio: ['pipe', 'pipe', 'inherit'] });
    let out = '';
    child.on('error', reject);
    child.on('exit', (code) => reject(new Error(`server exited early with ${code}`)));
    child.stdout.on('data', (data) => {
      out += data;
      const m = /(PORT (\d+)|UNIX (\S+))\n/.exec(out);
      if (m) {
        child.removeAllListeners('exit');
        resolve({ child, target: m[2] ? { port: Number(m[2]), host: '127.0.0.1' } : { path: m[3] } });
      }
    });
  });
}

function open(target) {
  return new Promise((resolve, reject) => {
    const socket = net.connect(target, () => {
      const connection = rpc.createMessageConnection(
        new rpc.StreamMessageReader(socket), new rpc.StreamMessageWriter(socket));
      resolve({ socket, connection });
    });
    socket.on('error', reject);
  });
}

async function run(program, socketPath) {
  const { child, target } = await startServer(program, socketPath);
  try {
    const first = await open(target);
    const c = first.connection;
    const news = notified(c, 'news');
    const registered = notified(c, 'channel.registered');
    const pingResult = notified(c, 'ping.result');
    const hello = [];
    c.onRequest('client.hello', (params) => {
      hello.push(params);
      return { greeting: 'hello from node', got: params };
    });
    c.listen();

    const params = { text: 'h\u00e9llo', list: [1, 2.5, 'three', null, { deep: true }] };
    assert.deepStrictEqual(await c.sendRequest('echo', params), params);

    await assert.rejects(c.sendRequest('no.such.method', {}), { code: rpc.ErrorCodes.MethodNotFound });

    // The server publishes a notification that has no handler there to its
    // subscribers: this connection.
    assert.strictEqual(
      await c.sendRequest('subscribe', rpc.ParameterStructures.byPosition, 'news', 'channel.registered'), true);
    await c.sendNotification('news', { n: 1 });
    assert.deepStrictEqual(await news, { n: 1 });

    const second = await open(target);
    second.connection.listen();
    const notice = await registered;
    if (target.path) {
      // A Unix peer is named by the socket's path and a number of its own.
      assert.match(notice.channel_id, new RegExp(`^unix:${target.path}#\\d+$`));
      assert.strictEqual(notice.channel_address, '127.0.0.1:0');
    } else {
      const address = `${second.socket.localAddress}:${second.socket.localPort}`;
      assert.strictEqual(notice.channel_id, address);
      assert.strictEqual(notice.channel_address, address);
    }
    assert.strictEqual(notice.channel_type, 0);
    assert.ok(Number.isInteger(notice.ts));
    assert.deepStrictEqual(await second.connection.sendRequest('echo', { from: 'second' }), { from: 'second' });

    // The server calls back on this connection and reports the answer.
    await c.sendNotification('ping.me', { from: 'node' });
    const result = await pingResult;
    assert.deepStrictEqual(hello, [{ from: 'node' }]);
    assert.deepStrictEqual(result, { ok: true, response: { greeting: 'hello from node', got: { from: 'node' } } });

    second.connection.dispose();
    second.socket.destroy();
    c.dispose();
    first.socket.destroy();
  } finally {
    child.stdin.end();
  }
  const code = await new Promise((resolve) => child.on('exit', resolve));
  assert.strictEqual(code, 0, `server exit code ${code}`);
}

async function main() {
  const program = process.argv[2];
  assert.ok(program, 'usage: node interop.js path/to/tcp_test_server');
  await run(program);
  const dir = fs.mkdtempSync(path.join(os.tmpdir(), 'interop-'));
  try {
    await run(program, path.join(dir, 'rpc.sock'));
  } finally {
    fs.rmSync(dir, { recursive: true, force: true });
  }
  console.log('vscode-jsonrpc interoperability (TCP and Unix socket): all passed');
}

setTimeout(() => fail('no result within 60 seconds'), 60000).unref();
main().catch(fail);
