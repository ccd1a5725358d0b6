'use strict';
// A scripted HTTP server for jsonrpc_call_test.sh, with the answers real
// servers rarely give: statuses without a body, bodies cut off, no answer.
// It listens on a loopback port of the system's choosing, prints "PORT <n>"
// and ends when its standard input closes. Node's own modules only.
//
//   /204            204, no body
//   /empty          200 with Content-Length: 0
//   /cut            200 application/json, Content-Length 100, 20 bytes, close
//   /cut-chunked    200 application/json, chunked, one chunk, close
//   /bad-json       200 application/json, a whole body that is no JSON
//   /html-404       404 text/html
//   /html-200       200 text/html
//   /silent         reads the request and never answers
//   /count          reads a JSON-RPC request and answers with what came:
//                   {"bytes": body bytes, "params_bytes": bytes of params,
//                    "chunked": Transfer-Encoding was chunked, "id": its id}
const http = require('http');

// Whole answers: status, Content-Type, body.
const canned = {
  '/bad-json': [200, 'application/json', '{"result":[1,2,3,4,5'],
  '/html-404': [404, 'text/html', '<html><body>not here</body></html>'],
  '/html-200': [200, 'text/html', '<html><body>hello</body></html>'],
};

// The start of a 200 answer, then the connection closes.
function cutOff(res, headers) {
  res.writeHead(200, headers);
  res.write('{"result":[1,2,3,4,5');
  setTimeout(() => res.socket.destroy(), 50);
}

const server = http.createServer((req, res) => {
  let bytes = 0;
  // Only the head and the tail of a body are kept, whatever its size.
  let head = '';
  let tail = '';
  req.on('data', (chunk) => {
    bytes += chunk.length;
    if (head.length < 256) head += chunk.toString('latin1', 0, Math.min(chunk.length, 256));
    tail = (tail + chunk.toString('latin1', Math.max(0, chunk.length - 16))).slice(-16);
  });
  req.on('end', () => {
    switch (req.url) {
      case '/204':
        res.writeHead(204);
        res.end();
        break;
      case '/empty':
        res.writeHead(200, { 'content-length': '0' });
        res.end();
        break;
      case '/cut':
        cutOff(res, { 'content-type': 'application/json', 'content-length': '100' });
        break;
      case '/cut-chunked':
        cutOff(res, { 'content-type': 'application/json' });
        break;
      case '/bad-json':
      case '/html-404':
      case '/html-200': {
        const [status, type, body] = canned[req.url];
        res.writeHead(status, { 'content-type': type });
        res.end(body);
        break;
      }
      case '/silent':
        break;
      case '/count': {
        const at = head.indexOf('"params":');
        const id = /"id":"([^"]*)"/.exec(head);
        const answer = {
          jsonrpc: '2.0',
          id: id ? id[1] : null,
          result: {
            bytes,
            params_bytes: at < 0 ? -1 : bytes - at - '"params":'.length - 1,
            chunked: req.headers['transfer-encoding'] === 'chunked',
            ends: tail.slice(-1),
          },
        };
        res.writeHead(200, { 'content-type': 'application/json' });
        res.end(JSON.stringify(answer));
        break;
      }
      default:
        res.writeHead(404, { 'content-type': 'application/json' });
        res.end('{"error":"no such script"}');
    }
  });
});
server.listen(0, '127.0.0.1', () => {
  process.stdout.write(`PORT ${server.address().port}\n`);
});
process.stdin.on('end', () => process.exit(0));
process.stdin.resume();
