#!/usr/bin/env node
// Checks the server's API description:  node validate-openapi.mjs <openapi.yaml> [<routes.txt>]
// Valid OpenAPI 3.0.3 (the official schema), ASCII with LF ends (the build embeds it with CR LF),
// the shared components clients rely on and, given `quillmoord --dump-routes` output ("METHOD
// /path access" lines), exactly the routes as operations. Exits 1 with the reason when not.

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

// What the request gate lets through without a token: described with "security: []". Every other
// operation requires the bearer token (possibly beside anonymous access, for public channels).
export const OPEN_OPERATIONS = [
  'GET /api/version', 'GET /api/openapi.yaml', 'GET /api/docs', 'POST /api/invites/redeem',
  'GET /api/claim', 'POST /api/claim', 'POST /api/access-requests', 'GET /api/sso/status',
  'GET /api/sso/start', 'GET /api/sso/callback', 'POST /api/sso/handoff', 'GET /',
];

class CheckError extends Error {}
const fail = (message) => { throw new CheckError(message); };
const failIfAny = (problems) => { if (problems.length) fail(problems.join('\n')); };

export function checkBytes(bytes) {
  let line = 1;
  for (const b of bytes) {
    if (b === 0x0d) fail(`line ${line}: carriage return (store the file with LF line ends)`);
    if (b >= 0x80) fail(`line ${line}: non-ASCII byte 0x${b.toString(16)}`);
    if (b === 0x0a) line++;
  }
}

// "METHOD /path" lines, each optionally followed by one word (who may call it); blanks ignored.
export function parseRoutes(text) {
  return text.split('\n').map((raw, i) => [raw.trim(), i]).filter(([line]) => line)
    .map(([line, i]) => {
      const m = /^([A-Z]+) (\/\S*)(?: \S+)?$/.exec(line);
      if (!m) fail(`routes line ${i + 1}: expected "METHOD /path", got "${line}"`);
      return `${m[1]} ${m[2]}`;
    });
}

// Every operation as [key "METHOD /path", operation, path, path item].
const operations = (doc) => Object.entries(doc.paths ?? {}).flatMap(([path, item]) => HTTP_METHODS
  .filter((m) => item?.[m]).map((m) => [`${m.toUpperCase()} ${path}`, item[m], path, item]));

function checkComponents(doc) {
  const missing = Object.entries(REQUIRED_COMPONENTS).flatMap(([section, names]) =>
    names.filter((n) => !doc.components?.[section]?.[n]).map((n) => `components.${section}.${n}`));
  if (missing.length) fail(`missing components: ${missing.join(', ')}`);
  const { securitySchemes: { bearerAuth }, responses, schemas: { Error: error } } = doc.components;
  if (bearerAuth.type !== 'http' || bearerAuth.scheme !== 'bearer') {
    fail('components.securitySchemes.bearerAuth must be type http, scheme bearer');
  }
  if (responses.TooManyRequests.headers?.['Retry-After']?.schema?.type !== 'integer') {
    fail('components.responses.TooManyRequests needs an integer Retry-After header');
  }
  if (error.properties?.error?.type !== 'string' || !error.required?.includes('error')) {
    fail('components.schemas.Error must require the string member error');
  }
}

// What the official schema leaves unchecked: unique operation ids, and path parameters matching
// the path's placeholders one to one. `resolved` is the dereferenced document.
function checkOpenApiRules(resolved) {
  const problems = [];
  const seenIds = new Map();
  for (const [key, op, path, item] of operations(resolved)) {
    const id = op.operationId;
    if (seenIds.has(id)) problems.push(`${key}: operationId ${id} also used by ${seenIds.get(id)}`);
    if (id !== undefined) seenIds.set(id, key);
    // Operation-level parameters override path-level ones of the same name and location.
    const where = (p) => `${p.in}:${p.name}`;
    const all = [...(item.parameters ?? []), ...(op.parameters ?? [])];
    const params = new Map(all.map((p) => [where(p), p]));
    const opKeys = (op.parameters ?? []).map(where);
    if (new Set(opKeys).size !== opKeys.length) problems.push(`${key}: duplicate parameter`);
    const placeholders = [...path.matchAll(/\{([^}]+)\}/g)].map((m) => m[1]);
    for (const name of placeholders) {
      const p = params.get(`path:${name}`);
      if (!p) problems.push(`${key}: no path parameter for {${name}}`);
      else if (p.required !== true) problems.push(`${key}: path parameter ${name} not required`);
    }
    for (const p of params.values()) {
      if (p.in !== 'path' || placeholders.includes(p.name)) continue;
      problems.push(`${key}: path parameter ${p.name} is not in the path`);
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
    const fields = ['operationId', 'summary', 'description'];
    for (const field of fields.filter((f) => !(typeof op[f] === 'string' && op[f].trim()))) {
      problems.push(`${key}: no ${field}`);
    }
    const needsNoToken = Array.isArray(op.security) && op.security.length === 0;
    if (open.has(key) && !needsNoToken) problems.push(`${key}: open route needs "security: []"`);
    if (!open.has(key) && needsNoToken) problems.push(`${key}: must not be marked as open`);
  }
  for (const key of OPEN_OPERATIONS.filter((k) => !ops.has(k))) {
    problems.push(`${key}: open route is not described`);
  }
  failIfAny(problems);
}

function checkRoutes(ops, routes) {
  const missing = routes.filter((r) => !ops.has(r));
  const extra = [...ops.keys()].filter((k) => !routes.includes(k));
  failIfAny([
    ...(missing.length ? [`routes without an operation:\n  ${missing.join('\n  ')}`] : []),
    ...(extra.length ? [`operations that are no route:\n  ${extra.join('\n  ')}`] : []),
  ]);
}

// Runs every check; resolves to the number of operations or rejects saying what is wrong.
export async function checkOpenApi(bytes, routesText) {
  checkBytes(bytes);
  let doc, resolved;
  try {
    doc = parseYaml(bytes.toString('ascii'), { uniqueKeys: true, prettyErrors: true });
  } catch (e) {
    fail(`not valid YAML: ${e.message}`);
  }
  const version = JSON.stringify(doc?.openapi);
  if (version !== '"3.0.3"') fail(`openapi must be "3.0.3", found ${version}`);
  try {
    resolved = await SwaggerParser.validate(structuredClone(doc));  // it dereferences in place
  } catch (e) {
    fail(`not a valid OpenAPI document: ${e.message}`);
  }
  checkOpenApiRules(resolved);
  checkComponents(doc);
  const ops = new Map(operations(doc));
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
    const routesText = argv[1] === undefined ? undefined : readFileSync(argv[1], 'utf8');
    const count = await checkOpenApi(readFileSync(argv[0]), routesText);
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
