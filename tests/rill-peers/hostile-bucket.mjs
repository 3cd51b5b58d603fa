// A bucket that misbehaves on purpose, on 127.0.0.1, without signature checks. Prints "ready
// <port>", then runs until killed or its standard input closes. `node hostile-bucket.mjs --dir <d>`
// answers a request for <key> (the path after the bucket) by the first rule that applies: <d>/<key>
// is a file: it is the answer; <d>/<key>.endless exists: GET answers a body that never ends (HEAD
// tells no length); <d>/<key>.stall exists: no answer ever; otherwise 404 (a listing is empty).

import fs from 'node:fs';
import http from 'node:http';
import path from 'node:path';

const i = process.argv.indexOf('--dir');
const dir = i >= 0 ? process.argv[i + 1] : null;
const filler = Buffer.alloc(64 * 1024, '[');
const stalled = new Set();  // kept so that nothing closes them
const stat = (p) => fs.statSync(p, { throwIfNoEntry: false });

const server = http.createServer((req, res) => {
  const [rawPath, query = ''] = req.url.split(/\?(.*)/s), slash = rawPath.indexOf('/', 1);
  let key = '';
  try { key = slash < 0 ? '' : decodeURIComponent(rawPath.slice(slash + 1)); } catch {}
  // A key that would leave the directory names nothing.
  const file = dir && key && !key.split('/').includes('..') ? path.join(dir, key) : null;
  if (file && stat(file)?.isFile()) {
    res.writeHead(200, { 'content-length': stat(file).size });
    return req.method === 'HEAD' ? res.end() : fs.createReadStream(file).pipe(res);
  }
  if (file && ['GET', 'HEAD'].includes(req.method) && stat(`${file}.endless`)) {
    res.writeHead(200);  // no length told
    if (req.method === 'HEAD') return res.end();
    const pump = () => {
      while (!res.destroyed && res.write(filler));
      if (!res.destroyed) res.once('drain', pump);
    };
    return pump(res.on('error', () => {}));
  }
  if (file && stat(`${file}.stall`)) {
    return stalled.add(req.socket) && req.socket.on('close', () => stalled.delete(req.socket));
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
