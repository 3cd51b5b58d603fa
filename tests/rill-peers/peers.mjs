// Test peers for the storage tests: s3rver (an S3-compatible server) and, in front of it, a proxy
// that verifies AWS Signature Version 4 the way a real store does, since s3rver checks only the
// access key. Both listen on 127.0.0.1 on ports picked by the system.
//
//   node --openssl-legacy-provider peers.mjs --dir <data dir> --bucket <name> [--max-keys <n>]
//                                            [--delay-ms <n>]
//
// Prints "ready <front port> <s3rver port>" once both listen, then runs until killed or until its
// standard input closes (so a crashed test run leaves nothing behind).
//
// The front refuses with the store's XML error document: a wrong secret or any altered signed part
// (SignatureDoesNotMatch, 403), an unknown access key (InvalidAccessKeyId, 403), a body that does
// not hash to x-amz-content-sha256 (XAmzContentSHA256Mismatch, 400), a request without a signature
// (AccessDenied, 403) and an expired presigned URL (AccessDenied, 403). With --max-keys, every
// listing is forwarded with that page size, so continuation tokens are exercised with few objects.
// After a PUT it waits until s3rver serves the whole object, since s3rver may answer first.
// With --delay-ms, every request is held that long before it is answered, like a distant store.

import crypto from 'node:crypto';
import http from 'node:http';
import { createRequire } from 'node:module';

const require = createRequire(import.meta.url);
const S3rver = require('s3rver');

const ACCESS_KEY = 'S3RVER';
const SECRET_KEY = 'S3RVER';
const MAX_SKEW_SECONDS = 15 * 60;

const option = (name, fallback) => {
  const i = process.argv.indexOf(`--${name}`);
  return i >= 0 ? process.argv[i + 1] : fallback;
};

const sha256 = (data) => crypto.createHash('sha256').update(data).digest('hex');
const hmac = (key, data) => crypto.createHmac('sha256', key).update(data).digest();

// AWS URI encoding: unreserved characters stay, every other byte is %XX (upper case).
function awsEncode(text, keepSlash) {
  let out = '';
  for (const byte of Buffer.from(text, 'utf8')) {
    const c = String.fromCharCode(byte);
    if (/[A-Za-z0-9\-._~]/.test(c) || (keepSlash && c === '/')) out += c;
    else out += '%' + byte.toString(16).toUpperCase().padStart(2, '0');
  }
  return out;
}

const decodeComponent = (text) => decodeURIComponent(text.replace(/\+/g, '%20'));

// The canonical query: every parameter except `skip`, decoded and re-encoded, sorted by name.
function canonicalQuery(rawQuery, skip) {
  if (!rawQuery) return '';
  return rawQuery
    .split('&')
    .filter((part) => part.length > 0)
    .map((part) => {
      const eq = part.indexOf('=');
      const name = decodeComponent(eq < 0 ? part : part.slice(0, eq));
      const value = eq < 0 ? '' : decodeComponent(part.slice(eq + 1));
      return [awsEncode(name, false), awsEncode(value, false)];
    })
    .filter(([name]) => name !== skip)
    .sort((a, b) => (a[0] < b[0] ? -1 : a[0] > b[0] ? 1 : a[1] < b[1] ? -1 : 1))
    .map(([name, value]) => `${name}=${value}`)
    .join('&');
}

function signature(secret, dateStamp, region, amzDate, canonicalRequest) {
  const scope = `${dateStamp}/${region}/s3/aws4_request`;
  const stringToSign = `AWS4-HMAC-SHA256\n${amzDate}\n${scope}\n${sha256(canonicalRequest)}`;
  const key = [dateStamp, region, 's3', 'aws4_request'].reduce(hmac, `AWS4${secret}`);
  return crypto.createHmac('sha256', key).update(stringToSign).digest('hex');
}

const amzTime = (amzDate) => {
  const m = /^(\d{4})(\d{2})(\d{2})T(\d{2})(\d{2})(\d{2})Z$/.exec(amzDate || '');
  return m ? Date.UTC(+m[1], +m[2] - 1, +m[3], +m[4], +m[5], +m[6]) / 1000 : NaN;
};

class Refusal {
  constructor(status, code, message) { Object.assign(this, { status, code, message }); }
}

const mismatch = () =>
  new Refusal(403, 'SignatureDoesNotMatch',
    'The request signature we calculated does not match the signature you provided.');

// Credential "<access key>/<date>/<region>/s3/aws4_request": returns [date, region].
function checkCredential(credential, amzDate) {
  const parts = (credential || '').split('/');
  if (parts.length !== 5 || parts[3] !== 's3' || parts[4] !== 'aws4_request') {
    throw new Refusal(400, 'AuthorizationQueryParametersError', 'Malformed credential.');
  }
  if (parts[0] !== ACCESS_KEY) {
    throw new Refusal(403, 'InvalidAccessKeyId', 'The access key you provided does not exist.');
  }
  if (!amzDate || parts[1] !== amzDate.slice(0, 8)) throw mismatch();
  return [parts[1], parts[2]];
}

function verifyHeaderSigned(req, path, rawQuery, body) {
  const m = /^AWS4-HMAC-SHA256 Credential=([^,]+), ?SignedHeaders=([^,]+), ?Signature=([0-9a-f]{64})$/
    .exec(req.headers.authorization);
  if (!m) throw new Refusal(400, 'InvalidArgument', 'Malformed Authorization header.');
  const amzDate = req.headers['x-amz-date'];
  const [dateStamp, region] = checkCredential(m[1], amzDate);
  if (Math.abs(Date.now() / 1000 - amzTime(amzDate)) > MAX_SKEW_SECONDS) {
    throw new Refusal(403, 'RequestTimeTooSkewed', 'The difference between the request time and the current time is too large.');
  }
  const signed = m[2].split(';');
  for (const required of ['host', 'x-amz-content-sha256', 'x-amz-date']) {
    if (!signed.includes(required)) throw mismatch();
  }
  const payloadHash = req.headers['x-amz-content-sha256'];
  if (payloadHash !== 'UNSIGNED-PAYLOAD' && payloadHash !== sha256(body)) {
    throw new Refusal(400, 'XAmzContentSHA256Mismatch',
      "The provided 'x-amz-content-sha256' header does not match what was computed.");
  }
  const headers = signed
    .map((name) => `${name}:${String(req.headers[name] ?? '').trim().replace(/\s+/g, ' ')}\n`)
    .join('');
  const canonical = [req.method, path, canonicalQuery(rawQuery), headers, m[2], payloadHash].join('\n');
  if (signature(SECRET_KEY, dateStamp, region, amzDate, canonical) !== m[3]) throw mismatch();
}

function verifyPresigned(req, path, rawQuery) {
  const params = new URLSearchParams(rawQuery);
  if (params.get('X-Amz-Algorithm') !== 'AWS4-HMAC-SHA256') {
    throw new Refusal(400, 'AuthorizationQueryParametersError', 'Unsupported algorithm.');
  }
  const amzDate = params.get('X-Amz-Date');
  const [dateStamp, region] = checkCredential(params.get('X-Amz-Credential'), amzDate);
  const expires = Number(params.get('X-Amz-Expires'));
  if (!Number.isInteger(expires) || expires < 1) {
    throw new Refusal(400, 'AuthorizationQueryParametersError', 'Bad X-Amz-Expires.');
  }
  if (Date.now() / 1000 > amzTime(amzDate) + expires) {
    throw new Refusal(403, 'AccessDenied', 'Request has expired');
  }
  const signedHeaders = params.get('X-Amz-SignedHeaders') || '';
  const headers = signedHeaders
    .split(';')
    .map((name) => `${name}:${String(req.headers[name] ?? '').trim()}\n`)
    .join('');
  const canonical = [req.method, path, canonicalQuery(rawQuery, 'X-Amz-Signature'), headers,
    signedHeaders, 'UNSIGNED-PAYLOAD'].join('\n');
  if (signature(SECRET_KEY, dateStamp, region, amzDate, canonical) !== params.get('X-Amz-Signature')) {
    throw mismatch();
  }
}

const errorDocument = (refusal, resource) => '<?xml version="1.0" encoding="UTF-8"?>\n' +
  `<Error><Code>${refusal.code}</Code><Message>${refusal.message}</Message>` +
  `<Resource>${resource.replace(/&/g, '&amp;').replace(/</g, '&lt;')}</Resource></Error>`;

function forward(port, method, url, headers, body) {
  return new Promise((resolve, reject) => {
    const req = http.request({ host: '127.0.0.1', port, method, path: url, headers }, (res) => {
      const parts = [];
      res.on('data', (part) => parts.push(part));
      res.on('end', () => resolve({ status: res.statusCode, headers: res.headers, body: Buffer.concat(parts) }));
      res.on('error', reject);
    });
    req.on('error', reject);
    req.end(body);
  });
}

// s3rver may answer a PUT before the object is fully written: wait until it serves every byte.
async function settle(port, path, length) {
  for (let i = 0; i < 200; i++) {
    const head = await forward(port, 'HEAD', path, {}, undefined);
    if (head.status === 200 && Number(head.headers['content-length']) === length) return;
    await new Promise((r) => setTimeout(r, 10));
  }
}

const withMaxKeys = (rawQuery, maxKeys) =>
  (maxKeys && /(^|&)list-type=2(&|$)/.test(rawQuery || '') ? `${rawQuery}&max-keys=${maxKeys}` : rawQuery);

async function main() {
  const bucket = option('bucket', 'quill-test');
  const maxKeys = option('max-keys', '');
  const delayMs = Number(option('delay-ms', '0'));
  const s3rver = new S3rver({
    address: '127.0.0.1',
    port: 0,
    silent: true,
    directory: option('dir'),
    vhostBuckets: false,
    configureBuckets: [{ name: bucket }],
  });
  const { port: s3rverPort } = await s3rver.run();

  const front = http.createServer((req, res) => {
    const parts = [];
    req.on('data', (part) => parts.push(part));
    req.on('end', async () => {
      if (delayMs > 0) await new Promise((resolve) => setTimeout(resolve, delayMs));
      const body = Buffer.concat(parts);
      const q = req.url.indexOf('?');
      const rawPath = q < 0 ? req.url : req.url.slice(0, q);
      const rawQuery = q < 0 ? '' : req.url.slice(q + 1);
      const path = awsEncode(decodeURIComponent(rawPath), true);
      try {
        if (req.headers.authorization) verifyHeaderSigned(req, path, rawQuery, body);
        else if (/(^|&)X-Amz-Signature=/.test(rawQuery)) verifyPresigned(req, path, rawQuery);
        else throw new Refusal(403, 'AccessDenied', 'Access Denied');
      } catch (refusal) {
        if (!(refusal instanceof Refusal)) throw refusal;
        res.writeHead(refusal.status, { 'content-type': 'application/xml' });
        res.end(req.method === 'HEAD' ? undefined : errorDocument(refusal, rawPath));
        return;
      }
      try {
        const query = withMaxKeys(rawQuery, maxKeys);
        const url = rawPath + (query ? `?${query}` : '');
        const answer = await forward(s3rverPort, req.method, url, req.headers, body);
        if (req.method === 'PUT' && answer.status === 200) await settle(s3rverPort, rawPath, body.length);
        res.writeHead(answer.status, answer.headers);
        res.end(answer.body);
      } catch (err) {
        res.writeHead(502, { 'content-type': 'text/plain' });
        res.end(String(err));
      }
    });
  });
  await new Promise((resolve) => front.listen(0, '127.0.0.1', resolve));
  process.stdout.write(`ready ${front.address().port} ${s3rverPort}\n`);

  const stop = async () => {
    front.close();
    await s3rver.close();
    process.exit(0);
  };
  process.stdin.on('end', stop);
  process.stdin.resume();
  process.on('SIGTERM', stop);
}

main().catch((err) => {
  process.stderr.write(`peers: ${err.stack || err}\n`);
  process.exit(1);
});
