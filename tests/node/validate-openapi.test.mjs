// Tests of the API-description checker: it must accept the server's document and reject each kind
// of fault it exists to catch. Run with `node --test` in this directory. When QUILLMOORD_BIN names
// a built server, the document is also checked against that binary's own route table.

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

// A small valid document with every required component, the open operations and one secured one.
function minimalDoc() {
  const errorRef = { $ref: '#/components/schemas/Error' };
  const errorContent = { 'application/json': { schema: errorRef } };
  const components = {
    securitySchemes: { bearerAuth: { type: 'http', scheme: 'bearer' } },
    parameters: {},
    responses: {},
    schemas: {},
  };
  for (const name of REQUIRED_COMPONENTS.parameters) {
    components.parameters[name] = { name, in: 'query', schema: { type: 'string' } };
  }
  for (const name of REQUIRED_COMPONENTS.responses) {
    components.responses[name] = { description: name, content: errorContent };
  }
  components.responses.TooManyRequests.headers = { 'Retry-After': { schema: { type: 'integer' } } };
  for (const name of REQUIRED_COMPONENTS.schemas) components.schemas[name] = { type: 'object' };
  components.schemas.Error = {
    type: 'object',
    required: ['error'],
    properties: { error: { type: 'string' } },
  };
  const ok = { '200': { description: 'ok' } };
  const paths = {
    '/api/channels/{channel}': {
      parameters: [{ name: 'channel', in: 'path', required: true, schema: { type: 'string' } }],
      get: { operationId: 'getChannel', summary: 's', description: 'd', responses: ok },
    },
  };
  for (const [i, key] of OPEN_OPERATIONS.entries()) {
    const [method, path] = key.split(' ');
    paths[path] ??= {};
    paths[path][method.toLowerCase()] = {
      operationId: `open${i}`, summary: 's', description: 'd', security: [], responses: ok,
    };
  }
  return {
    openapi: '3.0.3',
    info: { title: 't', version: '1' },
    security: [{ bearerAuth: [] }],
    paths,
    components,
  };
}

const bytesOf = (doc) => Buffer.from(stringify(doc), 'ascii');
const ROUTES = ['GET /api/channels/{channel}', ...OPEN_OPERATIONS].join('\n') + '\n';

async function rejects(doc, pattern, routes = undefined) {
  const bytes = Buffer.isBuffer(doc) ? doc : bytesOf(doc);
  await assert.rejects(checkOpenApi(bytes, routes), pattern);
}

test('the minimal document passes, so the fault cases below fail for their own reason', async () => {
  assert.equal(await checkOpenApi(bytesOf(minimalDoc()), ROUTES), OPEN_OPERATIONS.length + 1);
});

test('byte-level faults name the line', async () => {
  const text = stringify(minimalDoc());
  await rejects(Buffer.from(text.replace('\n', '\r\n'), 'latin1'), /line 1: carriage return/);
  await rejects(Buffer.from(text.replace('title: t', 'title: caf\u00e9'), 'utf8'), /line 3: non-ASCII byte 0xc3/);
  await rejects(Buffer.from('openapi: 3.0.3\nopenapi: 3.0.3\n'), /not valid YAML/);
});

// Each fault the checker exists to catch, as an edit of the minimal document and the message.
const faults = [
  [(d) => { d.openapi = '3.1.0'; }, /openapi must be "3.0.3"/],
  [(d) => { d.components.schemas.Me = { type: 'int' }; }, /not a valid OpenAPI document/],
  [(d) => {
    d.paths['/api/version'].get.responses['200'].content = {
      'application/json': { schema: { $ref: '#/components/schemas/Nope' } },
    };
  }, /Nope/],
  [(d) => { d.paths['/api/channels/{channel}'].get.operationId = 'open0'; }, /operationId open0 also used/],
  [(d) => { d.paths['/api/channels/{channel}'].parameters[0].name = 'chan'; },
    /no path parameter for \{channel\}[\s\S]*chan is not in the path/],
  [(d) => { delete d.components.responses.TooManyRequests.headers; }, /integer Retry-After/],
  [(d) => { d.components.schemas.Error.required = ['code']; }, /require the string member error/],
  [(d) => { delete d.paths['/api/version'].get.security; },
    /GET \/api\/version: open route needs "security: \[\]"/],
  [(d) => { d.paths['/api/channels/{channel}'].get.security = []; }, /must not be marked as open/],
  [(d) => { delete d.paths['/api/sso/handoff']; }, /POST \/api\/sso\/handoff: open route is not described/],
  [(d) => { delete d.paths['/api/version'].get.summary; }, /GET \/api\/version: no summary/],
  // Every required component but Error, which is referenced: the $ref fails first.
  ...Object.entries(REQUIRED_COMPONENTS).flatMap(([section, names]) => names
    .filter((name) => name !== 'Error')
    .map((name) => [(d) => { delete d.components[section][name]; },
      new RegExp(`missing components: components\\.${section}\\.${name}$`)])),
];

test('each kind of fault is rejected for its own reason', async () => {
  for (const [edit, pattern] of faults) {
    const doc = minimalDoc();
    edit(doc);
    await rejects(doc, pattern);
  }
});

test('the server document passes on the command line', () => {
  const run = spawnSync(process.execPath, [script, documentPath], { encoding: 'utf8' });
  assert.equal(run.stderr, '');
  assert.equal(run.status, 0);
  assert.equal(run.stdout, 'openapi: ok (65 operations)\n');
});

test('a failing check exits 1 and usage errors exit 2', () => {
  const bad = spawnSync(process.execPath, [script, documentPath, script], { encoding: 'utf8' });
  assert.equal(bad.status, 1);
  assert.match(bad.stderr, /routes line 1/);
  const usage = spawnSync(process.execPath, [script], { encoding: 'utf8' });
  assert.equal(usage.status, 2);
  assert.match(usage.stderr, /^usage:/);
});

test('the server document matches the built route table', { skip: !process.env.QUILLMOORD_BIN }, async () => {
  const routes = execFileSync(process.env.QUILLMOORD_BIN, ['--dump-routes'], { encoding: 'utf8' });
  assert.equal(await checkOpenApi(readFileSync(documentPath), routes), 65);
});
