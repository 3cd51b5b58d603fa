// Drives one sign-in in headless Chromium as a person would: opens the start URL, fills the
// provider's login and consent pages, and stops at the redirect to the desktop client's loopback
// listener (every redirect hop passes the request interception, which is how it is caught).
//   node browser.mjs --start <url> --client-port <port> --login <name> [--chromium <path>]
// Prints "handoff <url of the client request>" and exits 0, or prints the reason and exits 1.
// Requests to hosts other than loopback fail at once, so the test never leaves the machine.

import { chromium } from 'playwright-core';

const args = process.argv.slice(2);
const option = (name) => (args.includes(name) ? args[args.indexOf(name) + 1] : undefined);
const loopback = (url) => ['127.0.0.1', 'localhost', '[::1]'].includes(url.hostname);

const browser = await chromium.launch({
  executablePath: option('--chromium') || '/usr/bin/chromium',
  args: ['--no-sandbox', '--disable-gpu', '--no-first-run'],
});
setTimeout(() => {
  console.log('timed out');
  process.exit(1);
}, 60000);
try {
  const page = await browser.newPage();
  const cdp = await page.context().newCDPSession(page);
  let handoff;
  const reached = new Promise((resolve) => (handoff = resolve));
  await cdp.send('Fetch.enable', { patterns: [{ urlPattern: '*', requestStage: 'Request' }] });
  cdp.on('Fetch.requestPaused', async ({ requestId, request }) => {
    const url = new URL(request.url);
    if (!loopback(url)) {
      await cdp.send('Fetch.failRequest', { requestId, errorReason: 'BlockedByClient' });
    } else if (url.port === option('--client-port')) {
      handoff(request.url);
      const body = Buffer.from('signed in').toString('base64');
      await cdp.send('Fetch.fulfillRequest', { requestId, responseCode: 200, body });
    } else {
      await cdp.send('Fetch.continueRequest', { requestId });
    }
  });
  await page.goto(option('--start'));
  await page.fill('input[name=login]', option('--login'));
  await page.fill('input[name=password]', 'any');
  await page.click('button[type=submit]');
  // The consent page, unless the provider skips it.
  const consent = page.locator('input[name=prompt][value=consent]');
  await Promise.race([
    reached,
    consent.waitFor({ state: 'attached' }).then(() => page.click('button[type=submit]')),
  ]);
  console.log(`handoff ${await reached}`);
} catch (error) {
  console.log(`browser failed: ${error.message.split('\n')[0]}`);
  process.exitCode = 1;
}
await browser.close();
process.exit(process.exitCode ?? 0);
