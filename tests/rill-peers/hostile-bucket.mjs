// A bucket that misbehaves on purpose, for what a hostile or broken store costs its clients. Plain
// node, on 127.0.0.1; signatures are not checked. `node hostile-bucket.mjs [--dir <dir>]` prints
// "ready <port>", then runs until killed or until its standard input closes. A request for the
// object key <key> (the path after the bucket) is answered by the first rule that applies:
//   - `<dir>/<key>` is a file: it is the answer (HEAD tells its length), like a store;
//   - `<dir>/<key>.endless` exists: GET answers, as fast as it is read, a body that never ends
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
const stat = (p) => fs.statSync(p, { throwIfNoEntry: false });
const decoded = (text) => {
  try { return decodeURIComponent(text); } catch { return ''; }  // undecodable: no object
};

const server = http.createServer((req, res) => {
  const [rawPath, query = ''] = req.url.split(/\?(.*)/s), slash = rawPath.indexOf('/', 1);
  const key = slash < 0 ? '' : decoded(rawPath.slice(slash + 1));
  // A key that would leave the directory names nothing.
  const file = dir && key && !key.split('/').includes('..') ? path.join(dir, key) : null;
  const read = req.method === 'GET' || req.method === 'HEAD';
  if (file && stat(file)?.isFile()) {
    res.writeHead(200, { 'content-type': 'application/octet-stream', 'content-length': stat(file).size });
    return req.method === 'HEAD' ? res.end() : fs.createReadStream(file).pipe(res);
  }
  if (file && read && stat(`${file}.endless`)) {
    res.writeHead(200, { 'content-type': 'application/octet-stream' });  // no length told
    if (req.method === 'HEAD') return res.end();
    const pump = () => {
      while (!res.destroyed && res.write(filler));
      if (!res.destroyed) res.once('drain', pump);
    };
    return pump(res.on('error', () => {}));
  }
  if (file && stat(`${file}.stall`)) {
    stalled.add(req.socket);
    return req.socket.on('close', () => stalled.delete(req.socket));
  }
  const listing = req.method === 'GET' && !key && /(^|&)list-type=2(&|$)/.test(query);
  res.writeHead(listing ? 200 : 404, { 'content-type': 'application/xml' });
  res.end('<?xml version="1.0" encoding="UTF-8"?>' + (listing
    ? '<ListBucketResult><IsTruncated>false</IsTruncated></ListBucketResult>'
    : '<Error><Code>NoSuchKey</Code><Message>The specified key does not exist.</Message></Error>'));
});
server.requestTimeout = 0;  // a stalled answer is ours to keep, not the server's to end
server.listen(0, '127.0.0.1', () => process.stdout.write(`ready ${server.address().port}\n`));
process.stdin.on('end', () => process.exit(0)).resume();
process.on('SIGTERM', () => process.exit(0));
