#!/usr/bin/env node
// The documentation page without internet access: a real quillmoord on 127.0.0.1, headless
// Chromium with every request to another host aborted. The viewer script cannot load, so the page
// must show the noscript words with a working link to the API description instead of staying blank.
//
//   node docs-page-offline.mjs <path to quillmoord>
//
// Exits 0 when the fallback shows (and stays away when the viewer loads), 1 with the reason when
// not, and 77 (skipped) when /usr/bin/chromium is missing.

import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { existsSync, mkdtempSync, rmSync } from 'node:fs';
import { createServer } from 'node:net';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { chromium } from 'playwright-core';

const CHROMIUM = '/usr/bin/chromium';
const SKIPPED = 77;
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

// Polls /api/version until the server answers or `server` exits; throws after `ms`.
async function waitForServer(base, server, ms) {
  const deadline = Date.now() + ms;
  while (Date.now() < deadline) {
    if (server.exitCode !== null) throw new Error(`quillmoord exited with ${server.exitCode}`);
    try {
      if ((await fetch(`${base}/api/version`)).ok) return;
    } catch {
      // not listening yet
    }
    await new Promise((r) => setTimeout(r, 100));
  }
  throw new Error(`quillmoord did not answer on ${base} within ${ms} ms`);
}

// Requests off 127.0.0.1 go to `offHost(route, url)`.
const routeOffHost = (page, offHost) => page.route('**/*', (route) => {
  const url = new URL(route.request().url());
  return url.hostname === '127.0.0.1' ? route.continue() : offHost(route, url);
});

async function checkFallback(page, base) {
  const blocked = [];
  await routeOffHost(page, (route, url) => {
    blocked.push(url.href);
    return route.abort('internetdisconnected');
  });

  await page.goto(`${base}/api/docs`, { waitUntil: 'load' });
  assert.ok(blocked.some((u) => u.endsWith('.js')), `the viewer script was never requested: ${blocked}`);

  // The specified elements are still there.
  assert.equal(await page.title(), 'Quillmoor API');
  assert.equal(await page.locator('redoc').getAttribute('spec-url'), '/api/openapi.yaml');
  assert.equal(await page.locator('noscript').count(), 1);

  const fallback = page.locator('#docs-fallback');
  await fallback.waitFor({ state: 'visible', timeout: 5000 });
  assert.equal((await fallback.innerText()).replace(/\s+/g, ' ').trim(), WORDS);

  const link = fallback.getByRole('link', { name: '/api/openapi.yaml' });
  assert.ok(await link.isVisible(), 'the link to the API description is not visible');
  await link.click();
  await page.waitForURL(`${base}/api/openapi.yaml`);
  assert.match(await page.locator('body').innerText(), /^openapi: 3\.0\.3/);
}

// With the viewer loaded (a stand-in script defining its global) the fallback stays away.
async function checkNoFallbackWithViewer(page, base) {
  await routeOffHost(page, (route) =>
    route.fulfill({ contentType: 'text/javascript', body: 'window.Redoc = {};' }));
  await page.goto(`${base}/api/docs`, { waitUntil: 'load' });
  assert.equal(await page.locator('#docs-fallback').count(), 0, 'fallback shown beside the viewer');
}

async function main() {
  const binary = process.argv[2];
  if (!binary) throw new Error('usage: docs-page-offline.mjs <path to quillmoord>');
  if (!existsSync(CHROMIUM)) {
    console.log(`skipped: ${CHROMIUM} is missing (install Debian's chromium package)`);
    return SKIPPED;
  }

  const scratch = mkdtempSync(join(tmpdir(), 'quill-docs-'));
  const port = await freePort();
  const base = `http://127.0.0.1:${port}`;
  const server = spawn(
    binary,
    ['--data-dir', join(scratch, 'data'), '--bind', '127.0.0.1', '--port', String(port)],
    { stdio: ['ignore', 'ignore', 'inherit'] },
  );
  let browser;
  try {
    await waitForServer(base, server, 20000);
    // A persistent context on a fresh profile directory of its own.
    browser = await chromium.launchPersistentContext(join(scratch, 'profile'), {
      executablePath: CHROMIUM,
      headless: true,
      args: [
        '--no-sandbox', '--disable-gpu', '--disable-background-networking',
        '--disable-component-update', '--disable-sync', '--no-first-run',
      ],
      timeout: 30000,
    });
    await checkFallback(await browser.newPage(), base);
    await checkNoFallbackWithViewer(await browser.newPage(), base);
  } finally {
    await browser?.close();
    server.kill('SIGKILL');
    rmSync(scratch, { recursive: true, force: true });
  }
  console.log('docs page offline: ok');
  return 0;
}

main().then(
  (code) => process.exit(code),
  (err) => {
    console.error(`docs page offline: ${err.message}`);
    process.exit(1);
  },
);
