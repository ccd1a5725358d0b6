'use strict';
// json-server with an in-memory database on a loopback port of the system's
// choosing. It prints "PORT <n>" when it listens and ends when its standard
// input closes. GET /__requests counts the requests that reached the REST
// routes; GET /__login sets a cookie, and /__last shows the last head.
const jsonServer = require('json-server');

const db = {
  items: [
    { id: 1, name: 'first', tags: ['a', 'b'] },
    { id: 2, name: 'second', tags: [] },
  ],
};

const server = jsonServer.create();
const router = jsonServer.router(db);
let requests = 0;
let last = null;
server.get('/__requests', (req, res) => res.json({ requests, last }));
server.get('/__login', (req, res) => {
  res.cookie('sid', 'abc123', { path: '/' });
  res.cookie('gone', 'x', { path: '/', maxAge: 0 });
  res.json({ ok: true });
});
server.use((req, res, next) => {
  requests += 1;
  last = { method: req.method, url: req.url, headers: req.headers };
  next();
});
server.use(jsonServer.defaults({ logger: false }));
server.use(jsonServer.bodyParser);
server.use(router);
const http = server.listen(0, '127.0.0.1', () => {
  process.stdout.write(`PORT ${http.address().port}\n`);
});
http.keepAliveTimeout = 30000;
process.stdin.on('end', () => process.exit(0));
process.stdin.resume();
