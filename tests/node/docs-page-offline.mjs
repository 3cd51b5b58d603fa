#!/usr/bin/env node
// The documentation page without internet access:  node docs-page-offline.mjs <path to quillmoord>
// A real quillmoord on 127.0.0.1, headless Chromium aborting every request to another host: the
// viewer script cannot load, so the page must show the noscript words with a working link to the
// API description, not stay blank; with the viewer loaded, no fallback. Exits 77 without chromium.

import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { existsSync, mkdtempSync, rmSync } from 'node:fs';
import { createServer } from 'node:net';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { chromium } from 'playwright-core';

const CHROMIUM = '/usr/bin/chromium';
const WORDS =
  'JavaScript (and internet access for the viewer script) is needed to render this page - ' +
  'the raw API description is at /api/openapi.yaml.';

const freePort = () => new Promise((resolve, reject) => {
  const probe = createServer().once('error', reject);
  probe.listen(0, '127.0.0.1', () => {
    const { port } = probe.address();
    probe.close(() => resolve(port));
  });
});

async function waitForServer(base, server) {
  for (let tries = 0; tries < 200 && server.exitCode === null; tries++) {  // 20 s
    if (await fetch(`${base}/api/version`).then((r) => r.ok, () => false)) return;
    await new Promise((r) => setTimeout(r, 100));
  }
  throw new Error(`quillmoord did not answer on ${base} (exit code ${server.exitCode})`);
}

// Opens the page with each request off 127.0.0.1 handed to `offHost(route, url)`.
async function openDocs(browser, base, offHost) {
  const page = await browser.newPage();
  await page.route('**/*', (route) => {
    const url = new URL(route.request().url());
    return url.hostname === '127.0.0.1' ? route.continue() : offHost(route, url);
  });
  await page.goto(`${base}/api/docs`, { waitUntil: 'load' });
  return page;
}

async function check(browser, base) {
  const blocked = [];
  const page = await openDocs(browser, base, (route, url) => {
    blocked.push(url.href);
    return route.abort('internetdisconnected');
  });
  assert.ok(blocked.some((u) => u.endsWith('.js')), `no viewer script requested: ${blocked}`);
  assert.equal(await page.title(), 'Quillmoor API');
  assert.equal(await page.locator('redoc').getAttribute('spec-url'), '/api/openapi.yaml');
  assert.equal(await page.locator('noscript').count(), 1);
  const fallback = page.locator('#docs-fallback');
  await fallback.waitFor({ state: 'visible', timeout: 5000 });
  assert.equal((await fallback.innerText()).replace(/\s+/g, ' ').trim(), WORDS);
  await fallback.getByRole('link', { name: '/api/openapi.yaml' }).click();  // visible, or it fails
  await page.waitForURL(`${base}/api/openapi.yaml`);
  assert.match(await page.locator('body').innerText(), /^openapi: 3\.0\.3/);
  // A stand-in viewer script defining its global: the fallback stays away.
  const viewer = await openDocs(browser, base,
    (route) => route.fulfill({ contentType: 'text/javascript', body: 'window.Redoc = {};' }));
  assert.equal(await viewer.locator('#docs-fallback').count(), 0, 'fallback beside the viewer');
}

async function main(binary) {
  if (!binary) throw new Error('usage: docs-page-offline.mjs <path to quillmoord>');
  if (!existsSync(CHROMIUM)) {
    console.log(`skipped: ${CHROMIUM} is missing (install Debian's chromium package)`);
    return 77;
  }
  const scratch = mkdtempSync(join(tmpdir(), 'quill-docs-'));
  const base = `http://127.0.0.1:${await freePort()}`;
  const server = spawn(binary,
    ['--data-dir', join(scratch, 'data'), '--bind', '127.0.0.1', '--port', new URL(base).port],
    { stdio: ['ignore', 'ignore', 'inherit'] });
  let browser;
  try {
    await waitForServer(base, server);
    browser = await chromium.launchPersistentContext(join(scratch, 'profile'), {
      executablePath: CHROMIUM, headless: true, timeout: 30000,
      args: ['--no-sandbox', '--disable-gpu', '--disable-background-networking',
        '--disable-component-update', '--disable-sync', '--no-first-run'],
    });
    await check(browser, base);
  } finally {
    await browser?.close();
    server.kill('SIGKILL');
    rmSync(scratch, { recursive: true, force: true });
  }
  console.log('docs page offline: ok');
  return 0;
}

main(process.argv[2]).then((code) => process.exit(code), (err) => {
  console.error(`docs page offline: ${err.message}`);
  process.exit(1);
});
