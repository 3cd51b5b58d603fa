// S3 test peers on 127.0.0.1: s3rver behind a front that checks AWS Signature Version 4 as a real
// store does, refusing with the store's XML errors. Prints "ready <front port> <s3rver port>" and
// runs until killed or its standard input closes: node --openssl-legacy-provider peers.mjs --dir
// <dir> --bucket <name> [--max-keys <n> (pages every listing)] [--delay-ms <n> (every answer)]

import crypto from 'node:crypto';
import http from 'node:http';
import { createRequire } from 'node:module';

const S3rver = createRequire(import.meta.url)('s3rver');
const KEY = 'S3RVER';  // the access key, and the secret too
const arg = Object.fromEntries(process.argv.slice(2).flatMap((a, i, all) =>
  (a.startsWith('--') ? [[a.slice(2), all[i + 1]]] : [])));
const sha256 = (data) => crypto.createHash('sha256').update(data).digest('hex');
const hmac = (key, data) => crypto.createHmac('sha256', key).update(data).digest();
const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));
const refusal = (status, code, message) => Object.assign(new Error(message), { status, code });
const mismatch = () => refusal(403, 'SignatureDoesNotMatch',
  'The request signature we calculated does not match the signature you provided.');
// AWS URI encoding: unreserved characters stay, every other UTF-8 byte is %XX (upper case).
const awsEncode = (text) => encodeURIComponent(text)
  .replace(/[!'()*]/g, (c) => `%${c.charCodeAt(0).toString(16).toUpperCase()}`);
const amzTime = (date) => (/^\d{8}T\d{6}Z$/.test(date) ? Date.parse(date.replace(
  /(....)(..)(..)T(..)(..)(..)Z/, '$1-$2-$3T$4:$5:$6Z')) / 1000 : NaN);

// Throws the refusal a store answers `req` with, signed by its header or as a presigned URL.
function verify(req, rawPath, rawQuery, body) {
  const query = new URLSearchParams(rawQuery), header = req.headers.authorization;
  if (!header && !query.has('X-Amz-Signature')) throw refusal(403, 'AccessDenied', 'Access Denied');
  const [credential = '', signedHeaders = '', signature] = header
    ? /^AWS4-HMAC-SHA256 Credential=([^,]+), ?SignedHeaders=([^,]+), ?Signature=(\w+)$/
      .exec(header)?.slice(1) ?? []
    : ['Credential', 'SignedHeaders', 'Signature'].map((name) => query.get(`X-Amz-${name}`) ?? '');
  const amzDate = (header ? req.headers['x-amz-date'] : query.get('X-Amz-Date')) ?? '';
  const [key, dateStamp, region, service, end, ...rest] = credential.split('/');
  const signed = signedHeaders.split(';'), time = amzTime(amzDate);
  const expires = header ? 15 * 60 : Number(query.get('X-Amz-Expires'));
  if (!signature || service !== 's3' || end !== 'aws4_request' || rest.length
      || (!header && query.get('X-Amz-Algorithm') !== 'AWS4-HMAC-SHA256')
      || !Number.isInteger(expires) || expires < 1 || expires > 604800) {
    throw refusal(400, 'InvalidArgument', 'Malformed authorization.');
  }
  if (key !== KEY) throw refusal(403, 'InvalidAccessKeyId', 'The access key does not exist.');
  const wanted = header ? ['host', 'x-amz-content-sha256', 'x-amz-date'] : ['host'];
  if (!time || dateStamp !== amzDate.slice(0, 8) || wanted.some((h) => !signed.includes(h))) {
    throw mismatch();
  }
  const now = Date.now() / 1000;
  if (header && Math.abs(now - time) > expires) {
    throw refusal(403, 'RequestTimeTooSkewed', 'The request time is too far from now.');
  }
  if (!header && now > time + expires) throw refusal(403, 'AccessDenied', 'Request has expired');
  const payloadHash = header ? req.headers['x-amz-content-sha256'] : 'UNSIGNED-PAYLOAD';
  if (payloadHash !== 'UNSIGNED-PAYLOAD' && payloadHash !== sha256(body)) {
    throw refusal(400, 'XAmzContentSHA256Mismatch',
      "The provided 'x-amz-content-sha256' header does not match what was computed.");
  }
  const canonicalQuery = [...query].filter(([name]) => header || name !== 'X-Amz-Signature')
    .map(([name, value]) => [awsEncode(name), awsEncode(value)])
    .sort(([a, x], [b, y]) => (a === b ? (x < y ? -1 : 1) : a < b ? -1 : 1));
  const canonical = [req.method, awsEncode(decodeURIComponent(rawPath)).replace(/%2F/g, '/'),
    canonicalQuery.map((pair) => pair.join('=')).join('&'),
    ...signed.map((name) => `${name}:${`${req.headers[name] ?? ''}`.trim().replace(/\s+/g, ' ')}`),
    '', signedHeaders, payloadHash].join('\n');
  const signingKey = [dateStamp, region, 's3', 'aws4_request'].reduce(hmac, `AWS4${KEY}`);
  const scope = `${dateStamp}/${region}/s3/aws4_request`;
  const toSign = `AWS4-HMAC-SHA256\n${amzDate}\n${scope}\n${sha256(canonical)}`;
  if (hmac(signingKey, toSign).toString('hex') !== signature) throw mismatch();
}

const s3rver = new S3rver({ address: '127.0.0.1', port: 0, silent: true, directory: arg.dir,
  vhostBuckets: false, configureBuckets: [{ name: arg.bucket ?? 'quill-test' }] });
const { port: s3rverPort } = await s3rver.run();
const forward = (method, path, headers, body) => new Promise((resolve, reject) => {
  http.request({ host: '127.0.0.1', port: s3rverPort, method, path, headers }, resolve)
    .on('error', reject).end(body);
});
const front = http.createServer(async (req, res) => {
  try {
    const body = Buffer.concat(await req.toArray());
    if (arg['delay-ms']) await sleep(Number(arg['delay-ms']));
    const [rawPath, rawQuery = ''] = req.url.split(/\?(.*)/s);
    try {
      verify(req, rawPath, rawQuery, body);
    } catch ({ status = 400, code = 'InvalidArgument', message }) {  // undecodable: malformed
      res.writeHead(status, { 'content-type': 'application/xml' });
      return res.end(req.method === 'HEAD' ? undefined : '<?xml version="1.0" encoding="UTF-8"?>\n'
        + `<Error><Code>${code}</Code><Message>${message}</Message></Error>`);
    }
    const paged = arg['max-keys'] && /(^|&)list-type=2(&|$)/.test(rawQuery);
    const query = paged ? `${rawQuery}&max-keys=${arg['max-keys']}` : rawQuery;
    const answer = await forward(req.method, rawPath + (query && `?${query}`), req.headers, body);
    const answerBody = Buffer.concat(await answer.toArray());
    // s3rver may answer a PUT before the object is fully written: wait until it serves every byte.
    for (let i = 0; req.method === 'PUT' && answer.statusCode === 200 && i < 200; i++) {
      const head = await forward('HEAD', rawPath, {});
      head.resume();
      if (head.statusCode === 200 && +head.headers['content-length'] === body.length) break;
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
const stop = () => front.close() && s3rver.close().then(() => process.exit(0));
process.stdin.on('end', stop).resume();
process.on('SIGTERM', stop);
