#!/usr/bin/env node
// Checks the server's embedded API description.
//
//   node validate-openapi.mjs <openapi.yaml> [<routes.txt>]
//
// The document must be valid OpenAPI 3.0.3 (checked against the official schema by
// @apidevtools/swagger-parser), pure ASCII with LF line ends (the build converts it to CR LF when
// embedding it), and carry the shared components that clients rely on. With a routes file (the
// output of `quillmoord --dump-routes`: one "METHOD /path access" line per route) the operations in
// `paths` must be exactly the server's routes. Exits 0 and prints "openapi: ok (N operations)",
// or exits 1 with the reason.

import { readFileSync } from 'node:fs';
import { fileURLToPath } from 'node:url';
import SwaggerParser from '@apidevtools/swagger-parser';
import { parse as parseYaml } from 'yaml';

const HTTP_METHODS = ['get', 'put', 'post', 'delete', 'options', 'head', 'patch', 'trace'];

// Components that clients and the docs page refer to by name.
export const REQUIRED_COMPONENTS = {
  securitySchemes: ['bearerAuth'],
  parameters: ['channel', 'buildId', 'filePath', 'userName', 'groupName'],
  responses: ['Unauthorized', 'BadRequest', 'NotFound', 'Conflict', 'TooManyRequests'],
  schemas: [
    'StorageCredentials', 'StorageInfo', 'Error', 'ChannelPointer', 'LaunchTarget', 'ChannelInfo',
    'ChannelList', 'ManifestFile', 'Manifest', 'BuildSummary', 'BuildList', 'InviteCreated',
    'InviteInfo', 'InviteList', 'SsoConfigInput', 'SsoMapping', 'SsoMappingResponse', 'SsoConfig',
    'AccessRequest', 'AccessRequestList', 'Redeemed', 'Me', 'User', 'UserList', 'Group',
    'GroupList', 'UploadReceipt',
  ],
};

// Operations the request gate lets through without a token; the document must say so with an
// empty security list. Every other operation must require the bearer token (possibly alongside
// anonymous access, for public channel reads).
export const OPEN_OPERATIONS = [
  'GET /api/version', 'GET /api/openapi.yaml', 'GET /api/docs', 'POST /api/invites/redeem',
  'GET /api/claim', 'POST /api/claim', 'POST /api/access-requests', 'GET /api/sso/status',
  'GET /api/sso/start', 'GET /api/sso/callback', 'POST /api/sso/handoff', 'GET /',
];

class CheckError extends Error {}
const fail = (message) => { throw new CheckError(message); };
const failIfAny = (problems) => { if (problems.length) fail(problems.join('\n')); };

// Rejects any byte outside 7-bit ASCII and any CR, naming the first offending line.
export function checkBytes(bytes) {
  let line = 1;
  for (let i = 0; i < bytes.length; i++) {
    const b = bytes[i];
    if (b === 0x0d) fail(`line ${line}: carriage return (store the file with LF line ends)`);
    if (b >= 0x80) fail(`line ${line}: non-ASCII byte 0x${b.toString(16)}`);
    if (b === 0x0a) line++;
  }
}

// Parses "METHOD /path" lines, each optionally followed by who may call the route (one word,
// ignored here); blank lines are ignored.
export function parseRoutes(text) {
  const routes = [];
  for (const [i, raw] of text.split('\n').entries()) {
    const line = raw.trim();
    if (line === '') continue;
    const m = /^([A-Z]+) (\/\S*)(?: \S+)?$/.exec(line);
    if (!m) fail(`routes line ${i + 1}: expected "METHOD /path", got "${line}"`);
    routes.push(`${m[1]} ${m[2]}`);
  }
  return routes;
}

const operationsOf = (doc) => new Map(Object.entries(doc.paths ?? {}).flatMap(([path, item]) =>
  HTTP_METHODS.filter((m) => item?.[m]).map((m) => [`${m.toUpperCase()} ${path}`, item[m]])));

function checkComponents(doc) {
  const missing = [];
  for (const [section, names] of Object.entries(REQUIRED_COMPONENTS)) {
    for (const name of names) {
      if (!doc.components?.[section]?.[name]) missing.push(`components.${section}.${name}`);
    }
  }
  if (missing.length) fail(`missing components: ${missing.join(', ')}`);

  const bearer = doc.components.securitySchemes.bearerAuth;
  if (bearer.type !== 'http' || bearer.scheme !== 'bearer') {
    fail('components.securitySchemes.bearerAuth must be type http, scheme bearer');
  }
  const retryAfter = doc.components.responses.TooManyRequests.headers?.['Retry-After'];
  if (retryAfter?.schema?.type !== 'integer') {
    fail('components.responses.TooManyRequests needs an integer Retry-After header');
  }
  const error = doc.components.schemas.Error;
  if (error.properties?.error?.type !== 'string' || !(error.required ?? []).includes('error')) {
    fail('components.schemas.Error must require the string member error');
  }
}

// The official schema leaves these OpenAPI rules unchecked: unique operation ids, and path
// parameters that match the path's placeholders one to one. `resolved` is the dereferenced
// document.
function checkOpenApiRules(resolved) {
  const problems = [];
  const seenIds = new Map();
  for (const [path, item] of Object.entries(resolved.paths ?? {})) {
    const placeholders = [...path.matchAll(/\{([^}]+)\}/g)].map((m) => m[1]);
    for (const method of HTTP_METHODS) {
      const op = item?.[method];
      if (!op) continue;
      const key = `${method.toUpperCase()} ${path}`;
      if (op.operationId !== undefined) {
        if (seenIds.has(op.operationId)) {
          problems.push(`${key}: operationId ${op.operationId} also used by ${seenIds.get(op.operationId)}`);
        }
        seenIds.set(op.operationId, key);
      }
      // Operation-level parameters override path-level ones of the same name and location.
      const params = new Map();
      for (const p of [...(item.parameters ?? []), ...(op.parameters ?? [])]) {
        params.set(`${p.in}:${p.name}`, p);
      }
      const opKeys = (op.parameters ?? []).map((p) => `${p.in}:${p.name}`);
      if (new Set(opKeys).size !== opKeys.length) problems.push(`${key}: duplicate parameter`);
      const pathParams = [...params.values()].filter((p) => p.in === 'path');
      for (const name of placeholders) {
        const p = params.get(`path:${name}`);
        if (!p) problems.push(`${key}: no path parameter for {${name}}`);
        else if (p.required !== true) problems.push(`${key}: path parameter ${name} must be required`);
      }
      for (const p of pathParams) {
        if (!placeholders.includes(p.name)) problems.push(`${key}: path parameter ${p.name} is not in the path`);
      }
    }
  }
  failIfAny(problems);
}

function checkOperations(doc, ops) {
  const problems = [];
  const open = new Set(OPEN_OPERATIONS);
  if (!Array.isArray(doc.security) || !doc.security.some((s) => s && 'bearerAuth' in s)) {
    problems.push('top-level security must require bearerAuth');
  }
  for (const [key, op] of ops) {
    for (const field of ['operationId', 'summary', 'description']) {
      if (typeof op[field] !== 'string' || op[field].trim() === '') {
        problems.push(`${key}: no ${field}`);
      }
    }
    const needsNoToken = Array.isArray(op.security) && op.security.length === 0;
    if (open.has(key) && !needsNoToken) problems.push(`${key}: open route needs "security: []"`);
    if (!open.has(key) && needsNoToken) problems.push(`${key}: must not be marked as open`);
  }
  for (const key of OPEN_OPERATIONS) {
    if (!ops.has(key)) problems.push(`${key}: open route is not described`);
  }
  failIfAny(problems);
}

function checkRoutes(ops, routes) {
  const listed = new Set(routes);
  const missing = routes.filter((r) => !ops.has(r));
  const extra = [...ops.keys()].filter((k) => !listed.has(k));
  failIfAny([
    ...(missing.length ? [`routes without an operation:\n  ${missing.join('\n  ')}`] : []),
    ...(extra.length ? [`operations that are no route:\n  ${extra.join('\n  ')}`] : []),
  ]);
}

// Runs every check on the document's bytes and, when given, the routes text. Resolves to the
// number of operations; rejects with an Error whose message says what is wrong.
export async function checkOpenApi(bytes, routesText) {
  checkBytes(bytes);
  let doc;
  try {
    doc = parseYaml(bytes.toString('ascii'), { uniqueKeys: true, prettyErrors: true });
  } catch (e) {
    fail(`not valid YAML: ${e.message}`);
  }
  if (doc?.openapi !== '3.0.3') fail(`openapi must be "3.0.3", found ${JSON.stringify(doc?.openapi)}`);
  let resolved;
  try {
    // The validator dereferences in place; keep our copy intact for the checks below.
    resolved = await SwaggerParser.validate(structuredClone(doc));
  } catch (e) {
    fail(`not a valid OpenAPI document: ${e.message}`);
  }
  checkOpenApiRules(resolved);
  checkComponents(doc);
  const ops = operationsOf(doc);
  checkOperations(doc, ops);
  if (routesText !== undefined) checkRoutes(ops, parseRoutes(routesText));
  return ops.size;
}

async function main(argv) {
  if (argv.length < 1 || argv.length > 2) {
    console.error('usage: node validate-openapi.mjs <openapi.yaml> [<routes.txt>]');
    return 2;
  }
  try {
    const bytes = readFileSync(argv[0]);
    const routesText = argv[1] === undefined ? undefined : readFileSync(argv[1], 'utf8');
    const count = await checkOpenApi(bytes, routesText);
    console.log(`openapi: ok (${count} operations)`);
    return 0;
  } catch (e) {
    console.error(`openapi: ${argv[0]}: ${e instanceof CheckError ? e.message : e.stack ?? e}`);
    return 1;
  }
}

if (process.argv[1] && fileURLToPath(import.meta.url) === process.argv[1]) {
  process.exitCode = await main(process.argv.slice(2));
}
