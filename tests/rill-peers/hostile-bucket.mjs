// A bucket that misbehaves on purpose, for tests and measurements of what a hostile or broken
// store can cost its clients. Plain node, no packages; listens on 127.0.0.1 only.
//
//   node hostile-bucket.mjs [--dir <dir>] [--mode serve|endless|stall]
//
// Prints "ready <port>" once it listens, then runs until killed or until its standard input
// closes. Signatures are not checked. Every request is answered by the mode of its object key
// (the path after the bucket), the first that applies:
//   - `<dir>/<key>` is a file: GET answers it (HEAD its length), like a store;
//   - `<dir>/<key>.endless` exists: GET answers a body that never ends, as fast as it is read
//     (HEAD tells no length);
//   - `<dir>/<key>.stall` exists: the request is accepted and never answered;
//   - otherwise the mode of --mode (default serve: 404 NoSuchKey; a listing answers no objects).

import fs from 'node:fs';
import http from 'node:http';
import path from 'node:path';

function option(name, fallback) {
  const i = process.argv.indexOf(`--${name}`);
  return i >= 0 ? process.argv[i + 1] : fallback;
}

const dir = option('dir', null);
const fallbackMode = option('mode', 'serve');
if (!['serve', 'endless', 'stall'].includes(fallbackMode)) {
  process.stderr.write(`hostile-bucket: unknown mode ${fallbackMode}\n`);
  process.exit(2);
}

const filler = Buffer.alloc(64 * 1024, '[');
const stalled = new Set();  // kept so that nothing closes them

function isFile(p) {
  try {
    return fs.statSync(p).isFile();
  } catch {
    return false;
  }
}

// The object key of a path-style request: everything after "/<bucket>/", decoded; null when the
// key escapes the directory.
function keyOf(url) {
  const rawPath = url.split('?')[0];
  const slash = rawPath.indexOf('/', 1);
  if (slash < 0) return '';
  const key = decodeURIComponent(rawPath.slice(slash + 1));
  if (key.split('/').some((s) => s === '..')) return null;
  return key;
}

function modeOf(key) {
  if (dir && key) {
    const file = path.join(dir, key);
    if (isFile(file)) return { mode: 'file', file };
    if (fs.existsSync(`${file}.endless`)) return { mode: 'endless' };
    if (fs.existsSync(`${file}.stall`)) return { mode: 'stall' };
  }
  return { mode: fallbackMode };
}

function endless(res) {
  res.writeHead(200, { 'content-type': 'application/octet-stream' });
  const pump = () => {
    while (res.write(filler)) {
      if (res.destroyed) return;
    }
    res.once('drain', pump);
  };
  res.on('error', () => {});
  pump();
}

function notFound(res, key) {
  res.writeHead(404, { 'content-type': 'application/xml' });
  res.end(`<?xml version="1.0" encoding="UTF-8"?><Error><Code>NoSuchKey</Code>` +
          `<Key>${key}</Key></Error>`);
}

const server = http.createServer((req, res) => {
  const key = keyOf(req.url);
  if (key === null) return notFound(res, '');
  const { mode, file } = modeOf(key);
  if (mode === 'stall') {
    stalled.add(req.socket);
    req.socket.on('close', () => stalled.delete(req.socket));
    return;
  }
  if (mode === 'endless') {
    if (req.method === 'GET') return endless(res);
    if (req.method === 'HEAD') {
      res.writeHead(200, { 'content-type': 'application/octet-stream' });  // no length told
      return res.end();
    }
  }
  if (mode === 'file') {
    const size = fs.statSync(file).size;
    res.writeHead(200, { 'content-type': 'application/octet-stream', 'content-length': size });
    if (req.method === 'HEAD') return res.end();
    return fs.createReadStream(file).pipe(res);
  }
  if (req.method === 'GET' && key === '' && req.url.includes('list-type=2')) {
    res.writeHead(200, { 'content-type': 'application/xml' });
    return res.end('<?xml version="1.0" encoding="UTF-8"?><ListBucketResult>' +
                   '<IsTruncated>false</IsTruncated></ListBucketResult>');
  }
  notFound(res, key);
});
server.requestTimeout = 0;  // a stalled answer is ours to keep, not the server's to end

server.listen(0, '127.0.0.1', () => {
  process.stdout.write(`ready ${server.address().port}\n`);
});
process.stdin.on('end', () => process.exit(0));
process.stdin.resume();
process.on('SIGTERM', () => process.exit(0));
