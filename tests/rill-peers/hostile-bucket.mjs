// A bucket that misbehaves on purpose, for tests and measurements of what a hostile or broken
// store can cost its clients. Plain node, no packages; listens on 127.0.0.1 only.
//
//   node hostile-bucket.mjs [--dir <dir>]
//
// Prints "ready <port>" once it listens, then runs until killed or until its standard input
// closes. Signatures are not checked. A request is answered by the first that applies to its
// object key (the path after the bucket):
//   - `<dir>/<key>` is a file: GET answers it (HEAD its length), like a store;
//   - `<dir>/<key>.endless` exists: GET answers a body that never ends, as fast as it is read
//     (HEAD tells no length);
//   - `<dir>/<key>.stall` exists: the request is accepted and never answered;
//   - otherwise 404 NoSuchKey (a listing answers no objects).

import fs from 'node:fs';
import http from 'node:http';
import path from 'node:path';

const i = process.argv.indexOf('--dir');
const dir = i >= 0 ? process.argv[i + 1] : null;
const filler = Buffer.alloc(64 * 1024, '[');
const stalled = new Set();  // kept so that nothing closes them
const isFile = (p) => fs.statSync(p, { throwIfNoEntry: false })?.isFile() ?? false;

const server = http.createServer((req, res) => {
  // The object key: everything after "/<bucket>/", decoded; refused when it escapes the directory.
  const rawPath = req.url.split('?')[0];
  const slash = rawPath.indexOf('/', 1);
  const key = slash < 0 ? '' : decodeURIComponent(rawPath.slice(slash + 1));
  const file = dir && key && !key.split('/').includes('..') ? path.join(dir, key) : null;
  if (file && isFile(file)) {
    res.writeHead(200, { 'content-type': 'application/octet-stream',
                         'content-length': fs.statSync(file).size });
    return req.method === 'HEAD' ? res.end() : fs.createReadStream(file).pipe(res);
  }
  if (file && fs.existsSync(`${file}.endless`) && ['GET', 'HEAD'].includes(req.method)) {
    res.writeHead(200, { 'content-type': 'application/octet-stream' });  // no length told
    if (req.method === 'HEAD') return res.end();
    res.on('error', () => {});
    const pump = () => {
      while (res.write(filler)) if (res.destroyed) return;
      res.once('drain', pump);
    };
    return pump();
  }
  if (file && fs.existsSync(`${file}.stall`)) {
    stalled.add(req.socket);
    req.socket.on('close', () => stalled.delete(req.socket));
    return;
  }
  if (req.method === 'GET' && key === '' && req.url.includes('list-type=2')) {
    res.writeHead(200, { 'content-type': 'application/xml' });
    return res.end('<?xml version="1.0" encoding="UTF-8"?><ListBucketResult>' +
                   '<IsTruncated>false</IsTruncated></ListBucketResult>');
  }
  res.writeHead(404, { 'content-type': 'application/xml' });
  res.end(`<?xml version="1.0" encoding="UTF-8"?><Error><Code>NoSuchKey</Code><Key>${key}</Key></Error>`);
});
server.requestTimeout = 0;  // a stalled answer is ours to keep, not the server's to end

server.listen(0, '127.0.0.1', () => process.stdout.write(`ready ${server.address().port}\n`));
process.stdin.on('end', () => process.exit(0));
process.stdin.resume();
process.on('SIGTERM', () => process.exit(0));
