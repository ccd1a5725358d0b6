'use strict';
// A jayson JSON-RPC server on a loopback port of the system's choosing. It
// prints "PORT <n>" when it listens and ends when its standard input closes.
// GET /__requests gives the number of JSON-RPC POSTs so far and the head of
// the last one; everything else is jayson's own.
const jayson = require('jayson');

const methods = {
  echo: (args, callback) => callback(null, args),
  add: (args, callback) => callback(null, args[0] + args[1]),
  fail: (args, callback) => callback({ code: -32000, message: 'refused', data: { args } }),
  // An array of count strings of size characters: a large response.
  big: (args, callback) => callback(null, new Array(args.count).fill('x'.repeat(args.size))),
  // What a large request carried.
  measure: (args, callback) => callback(null, { items: args.length, chars: args.reduce((n, s) => n + s.length, 0) }),
};

const server = jayson.server(methods);
const http = server.http();
const jsonrpc = http.listeners('request')[0];
http.removeAllListeners('request');
let requests = 0;
let last = null;
http.on('request', (req, res) => {
  if (req.method === 'GET' && req.url === '/__requests') {
    res.writeHead(200, { 'content-type': 'application/json' });
    res.end(JSON.stringify({ requests, last }));
    return;
  }
  requests += 1;
  last = { method: req.method, url: req.url, headers: req.headers };
  jsonrpc(req, res);
});
http.keepAliveTimeout = 30000;
http.listen(0, '127.0.0.1', () => {
  process.stdout.write(`PORT ${http.address().port}\n`);
});
process.stdin.on('end', () => process.exit(0));
process.stdin.resume();
