// The API-description checker accepts the server's document and rejects each fault it exists to
// catch, for its own reason. With QUILLMOORD_BIN set, the document is checked against that binary's
// own route table too.

import { test } from 'node:test';
import assert from 'node:assert/strict';
import { execFileSync, spawnSync } from 'node:child_process';
import { readFileSync } from 'node:fs';
import { fileURLToPath } from 'node:url';
import { stringify } from 'yaml';
import { checkOpenApi, OPEN_OPERATIONS, REQUIRED_COMPONENTS } from './validate-openapi.mjs';

const here = (p) => fileURLToPath(new URL(p, import.meta.url));
const script = here('./validate-openapi.mjs');
const documentPath = here('../../src/app/resources/openapi.yaml');
const run = (...args) => spawnSync(process.execPath, [script, ...args], { encoding: 'utf8' });

// A small valid document: every required component, the open operations and one secured one.
function minimalDoc() {
  const named = (names, make) => Object.fromEntries(names.map((name) => [name, make(name)]));
  const schema = { type: 'string' };
  const content = { 'application/json': { schema: { $ref: '#/components/schemas/Error' } } };
  const ok = { 200: { description: 'ok' } };
  const op = (operationId, more) =>
    ({ operationId, summary: 's', description: 'd', responses: ok, ...more });
  const doc = {
    openapi: '3.0.3', info: { title: 't', version: '1' }, security: [{ bearerAuth: [] }],
    paths: {
      '/api/channels/{channel}': {
        parameters: [{ name: 'channel', in: 'path', required: true, schema }],
        get: op('getChannel'),
      },
    },
    components: {
      securitySchemes: { bearerAuth: { type: 'http', scheme: 'bearer' } },
      parameters: named(REQUIRED_COMPONENTS.parameters, (name) => ({ name, in: 'query', schema })),
      responses: named(REQUIRED_COMPONENTS.responses, (description) => ({ description, content })),
      schemas: named(REQUIRED_COMPONENTS.schemas, () => ({ type: 'object' })),
    },
  };
  for (const [i, key] of OPEN_OPERATIONS.entries()) {
    const [method, path] = key.split(' ');
    (doc.paths[path] ??= {})[method.toLowerCase()] = op(`open${i}`, { security: [] });
  }
  const { responses, schemas } = doc.components;
  responses.TooManyRequests.headers = { 'Retry-After': { schema: { type: 'integer' } } };
  schemas.Error = { type: 'object', required: ['error'], properties: { error: schema } };
  return doc;
}

const channel = (d) => d.paths['/api/channels/{channel}'];
const version = (d) => d.paths['/api/version'].get;
const text = stringify(minimalDoc());
// Each fault as an edit of the minimal document (or its bytes) and the reason given.
const nope = '#/components/schemas/Nope';
const faults = [
  [Buffer.from(text.replace('\n', '\r\n')), /line 1: carriage return/],
  [Buffer.from(text.replace('title: t', 'title: caf\u00e9')), /line 3: non-ASCII byte 0xc3/],
  [Buffer.from('openapi: 3.0.3\nopenapi: 3.0.3\n'), /not valid YAML/],
  [(d) => { d.openapi = '3.1.0'; }, /openapi must be "3.0.3"/],
  [(d) => { d.components.schemas.Me = { type: 'int' }; }, /not a valid OpenAPI document/],
  [(d) => { version(d).responses[200].content = { 'text/plain': { schema: { $ref: nope } } }; },
    /Nope/],
  [(d) => { channel(d).get.operationId = 'open0'; }, /operationId open0 also used/],
  [(d) => { channel(d).parameters[0].name = 'chan'; },
    /no path parameter for \{channel\}[\s\S]*chan is not in the path/],
  [(d) => { delete d.components.responses.TooManyRequests.headers; }, /integer Retry-After/],
  [(d) => { d.components.schemas.Error.required = ['code']; }, /require the string member error/],
  [(d) => { delete version(d).security; }, /GET \/api\/version: open route needs "security: \[\]"/],
  [(d) => { channel(d).get.security = []; }, /must not be marked as open/],
  [(d) => { delete d.paths['/api/sso/handoff']; },
    /POST \/api\/sso\/handoff: open route is not described/],
  [(d) => { delete version(d).summary; }, /GET \/api\/version: no summary/],
  // Every required component but Error, which is referenced: the $ref fails first.
  ...Object.entries(REQUIRED_COMPONENTS).flatMap(([section, names]) => names
    .filter((name) => name !== 'Error')
    .map((name) => [(d) => { delete d.components[section][name]; },
      new RegExp(`missing components: components\\.${section}\\.${name}$`)])),
];

test('the minimal document passes, and each fault is rejected for its own reason', async () => {
  const routes = ['GET /api/channels/{channel}', ...OPEN_OPERATIONS].join('\n') + '\n';
  assert.equal(await checkOpenApi(Buffer.from(text), routes), OPEN_OPERATIONS.length + 1);
  for (const [fault, reason] of faults) {
    const doc = minimalDoc();
    if (!Buffer.isBuffer(fault)) fault(doc);
    const bytes = Buffer.isBuffer(fault) ? fault : Buffer.from(stringify(doc));
    await assert.rejects(checkOpenApi(bytes), reason);
  }
});

test('the command line: the server document passes, a failed check exits 1, usage 2', () => {
  const good = run(documentPath);
  assert.deepEqual([good.status, good.stdout + good.stderr], [0, 'openapi: ok (65 operations)\n']);
  const bad = run(documentPath, script);  // not a routes file
  assert.equal(bad.status, 1);
  assert.match(bad.stderr, /routes line 1/);
  const usage = run();
  assert.equal(usage.status, 2);
  assert.match(usage.stderr, /^usage:/);
});

const bin = process.env.QUILLMOORD_BIN;
test('the server document matches the built route table', { skip: !bin }, async () => {
  const routes = execFileSync(bin, ['--dump-routes'], { encoding: 'utf8' });
  assert.equal(await checkOpenApi(readFileSync(documentPath), routes), 65);
});
