// Test peers for the storage tests: s3rver (an S3-compatible server) behind a front that verifies
// AWS Signature Version 4 as a real store does (s3rver checks only the access key); both on
// 127.0.0.1, on ports the system picks.
//
//   node --openssl-legacy-provider peers.mjs --dir <data dir> --bucket <name> [--max-keys <n>]
//                                            [--delay-ms <n>]
//
// Prints "ready <front port> <s3rver port>" once both listen; runs until killed or until its
// standard input closes. Refusals are the store's XML error documents: a wrong secret or any
// altered signed part (SignatureDoesNotMatch, 403), an unknown access key (InvalidAccessKeyId,
// 403), a body that does not hash to x-amz-content-sha256 (XAmzContentSHA256Mismatch, 400), no
// signature or an expired presigned URL (AccessDenied, 403), a request dated over 15 minutes off
// (RequestTimeTooSkewed, 403), anything malformed (InvalidArgument, 400). --max-keys pages every
// listing that small, so continuation tokens are used with few objects; --delay-ms holds every
// answer that long, like a distant store. A PUT is answered once s3rver serves the whole object.

import crypto from 'node:crypto';
import http from 'node:http';
import { createRequire } from 'node:module';

const S3rver = createRequire(import.meta.url)('s3rver');
const KEY = 'S3RVER';  // the access key, and the secret too
const arg = (name, fallback) => {
  const i = process.argv.indexOf(`--${name}`);
  return i >= 0 ? process.argv[i + 1] : fallback;
};
const sha256 = (data) => crypto.createHash('sha256').update(data).digest('hex');
const hmac = (key, data) => crypto.createHmac('sha256', key).update(data).digest();
const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));
const refusal = (status, code, message) => Object.assign(new Error(message), { status, code });
const mismatch = () => refusal(403, 'SignatureDoesNotMatch',
  'The request signature we calculated does not match the signature you provided.');
const malformed = (what) => refusal(400, 'InvalidArgument', `Malformed ${what}.`);

// AWS URI encoding: unreserved characters stay, every other UTF-8 byte is %XX (upper case).
const awsEncode = (text) => encodeURIComponent(text)
  .replace(/[!'()*]/g, (c) => `%${c.charCodeAt(0).toString(16).toUpperCase()}`);
// Every parameter but `skip`, decoded and re-encoded, by name then value.
const canonicalQuery = (rawQuery, skip) => [...new URLSearchParams(rawQuery)]
  .filter(([name]) => name !== skip).map(([name, value]) => [awsEncode(name), awsEncode(value)])
  .sort(([a, x], [b, y]) => (a === b ? (x < y ? -1 : 1) : a < b ? -1 : 1))
  .map((pair) => pair.join('=')).join('&');
const amzTime = (date) => {
  const m = /^(\d{4})(\d\d)(\d\d)T(\d\d)(\d\d)(\d\d)Z$/.exec(date ?? '');
  return m ? Date.UTC(m[1], m[2] - 1, m[3], m[4], m[5], m[6]) / 1000 : NaN;
};

// Throws the refusal a store would answer `req` with; signed by header or by presigned query.
function verify(req, rawPath, rawQuery, body) {
  const query = new URLSearchParams(rawQuery), header = req.headers.authorization;
  if (!header && !query.has('X-Amz-Signature')) throw refusal(403, 'AccessDenied', 'Access Denied');
  const m = header && /^AWS4-HMAC-SHA256 Credential=([^,]+), ?SignedHeaders=([^,]+), ?Signature=([0-9a-f]{64})$/.exec(header);
  if (header && !m) throw malformed('Authorization header');
  if (!header && query.get('X-Amz-Algorithm') !== 'AWS4-HMAC-SHA256') throw malformed('algorithm');
  const [credential, signedHeaders, signature, amzDate, payloadHash] = header
    ? [m[1], m[2], m[3], req.headers['x-amz-date'], req.headers['x-amz-content-sha256']]
    : [...['Credential', 'SignedHeaders', 'Signature', 'Date'].map((n) => query.get(`X-Amz-${n}`)),
      'UNSIGNED-PAYLOAD'];
  const [key, dateStamp, region, service, terminator, ...rest] = (credential ?? '').split('/');
  if (service !== 's3' || terminator !== 'aws4_request' || rest.length) throw malformed('credential');
  if (key !== KEY) throw refusal(403, 'InvalidAccessKeyId', 'The access key you provided does not exist.');
  const time = amzTime(amzDate), signed = (signedHeaders ?? '').split(';');
  if (!time || dateStamp !== amzDate.slice(0, 8) || !signed.includes('host')) throw mismatch();
  if (header) {
    if (!(Math.abs(Date.now() / 1000 - time) <= 15 * 60)) {
      throw refusal(403, 'RequestTimeTooSkewed', 'The difference between the request time and the current time is too large.');
    }
    if (!signed.includes('x-amz-content-sha256') || !signed.includes('x-amz-date')) throw mismatch();
    if (payloadHash !== 'UNSIGNED-PAYLOAD' && payloadHash !== sha256(body)) {
      throw refusal(400, 'XAmzContentSHA256Mismatch',
        "The provided 'x-amz-content-sha256' header does not match what was computed.");
    }
  } else {
    const expires = Number(query.get('X-Amz-Expires'));
    if (!Number.isInteger(expires) || expires < 1 || expires > 604800) throw malformed('X-Amz-Expires');
    if (Date.now() / 1000 > time + expires) throw refusal(403, 'AccessDenied', 'Request has expired');
  }
  const canonical = [req.method, awsEncode(decodeURIComponent(rawPath)).replace(/%2F/g, '/'),
    canonicalQuery(rawQuery, header ? null : 'X-Amz-Signature'),
    signed.map((n) => `${n}:${String(req.headers[n] ?? '').trim().replace(/\s+/g, ' ')}\n`).join(''),
    signedHeaders, payloadHash].join('\n');
  const scope = `${dateStamp}/${region}/s3/aws4_request`;
  const signingKey = [dateStamp, region, 's3', 'aws4_request'].reduce(hmac, `AWS4${KEY}`);
  const toSign = `AWS4-HMAC-SHA256\n${amzDate}\n${scope}\n${sha256(canonical)}`;
  if (hmac(signingKey, toSign).toString('hex') !== signature) throw mismatch();
}

const maxKeys = arg('max-keys'), delayMs = Number(arg('delay-ms', 0));
const s3rver = new S3rver({ address: '127.0.0.1', port: 0, silent: true, directory: arg('dir'),
  vhostBuckets: false, configureBuckets: [{ name: arg('bucket', 'quill-test') }] });
const { port: s3rverPort } = await s3rver.run();
const readAll = async (stream) => {
  const parts = [];
  for await (const part of stream) parts.push(part);
  return Buffer.concat(parts);
};
const forward = (method, path, headers, body) => new Promise((resolve, reject) => {
  http.request({ host: '127.0.0.1', port: s3rverPort, method, path, headers }, resolve)
    .on('error', reject).end(body);
});

const front = http.createServer(async (req, res) => {
  try {
    const body = await readAll(req);
    if (delayMs > 0) await sleep(delayMs);
    const [rawPath, rawQuery = ''] = req.url.split(/\?(.*)/s);
    try {
      verify(req, rawPath, rawQuery, body);
    } catch (err) {
      const { status = 400, code = 'InvalidArgument', message } = err;  // undecodable: malformed
      res.writeHead(status, { 'content-type': 'application/xml' });
      return res.end(req.method === 'HEAD' ? undefined : '<?xml version="1.0" encoding="UTF-8"?>\n'
        + `<Error><Code>${code}</Code><Message>${message}</Message></Error>`);
    }
    const paged = maxKeys && /(^|&)list-type=2(&|$)/.test(rawQuery);
    const query = paged ? `${rawQuery}&max-keys=${maxKeys}` : rawQuery;
    const answer = await forward(req.method, rawPath + (query ? `?${query}` : ''), req.headers, body);
    const answerBody = await readAll(answer);
    // s3rver may answer a PUT before the object is fully written: wait until it serves every byte.
    for (let i = 0; req.method === 'PUT' && answer.statusCode === 200 && i < 200; i++) {
      const head = await forward('HEAD', rawPath, {});
      head.resume();
      if (head.statusCode === 200 && Number(head.headers['content-length']) === body.length) break;
      await sleep(10);
    }
    res.writeHead(answer.statusCode, answer.headers).end(answerBody);
  } catch (err) {
    if (!res.headersSent) res.writeHead(502, { 'content-type': 'text/plain' });
    res.end(String(err));
  }
});
await new Promise((resolve) => front.listen(0, '127.0.0.1', resolve));
process.stdout.write(`ready ${front.address().port} ${s3rverPort}\n`);
const stop = async () => {
  front.close();
  await s3rver.close();
  process.exit(0);
};
process.stdin.on('end', stop).resume();
process.on('SIGTERM', stop);
