// Drives one sign-in in headless Chromium, as a person would: opens the start URL, fills the
// provider's login and consent pages, and stops at the redirect to the desktop client's loopback
// listener, which it does not let through.
//
//   node browser.mjs --start <url> --client-port <port> --login <name> [--chromium <path>]
//
// Prints "handoff <url of the client request>" and exits 0, or prints the reason and exits 1.
// Every request whose host is not loopback fails at once (the provider's pages import a web
// font), so the test never leaves the machine. Every redirect hop is visible to the request
// interception, which is how the client's request is caught.

import { chromium } from 'playwright-core';

const args = process.argv.slice(2);
const option = (name) => {
  const i = args.indexOf(name);
  return i >= 0 ? args[i + 1] : undefined;
};
const startUrl = option('--start');
const clientPort = option('--client-port');
const login = option('--login');
const executablePath = option('--chromium') || '/usr/bin/chromium';

const loopback = (url) => ['127.0.0.1', 'localhost', '[::1]'].includes(new URL(url).hostname);

const browser = await chromium.launch({
  executablePath,
  headless: true,
  args: ['--no-sandbox', '--disable-gpu', '--no-first-run'],
});
const timer = setTimeout(() => {
  console.log('timed out');
  process.exit(1);
}, 60000);
try {
  const page = await browser.newPage();
  const cdp = await page.context().newCDPSession(page);
  let handoff;
  const reached = new Promise((resolve) => {
    handoff = resolve;
  });
  await cdp.send('Fetch.enable', { patterns: [{ urlPattern: '*', requestStage: 'Request' }] });
  cdp.on('Fetch.requestPaused', async ({ requestId, request }) => {
    const url = new URL(request.url);
    if (!loopback(request.url)) {
      await cdp.send('Fetch.failRequest', { requestId, errorReason: 'BlockedByClient' });
    } else if (url.port === clientPort) {
      handoff(request.url);
      await cdp.send('Fetch.fulfillRequest', {
        requestId,
        responseCode: 200,
        body: Buffer.from('signed in').toString('base64'),
      });
    } else {
      await cdp.send('Fetch.continueRequest', { requestId });
    }
  });

  await page.goto(startUrl);
  await page.fill('input[name=login]', login);
  await page.fill('input[name=password]', 'any');
  await page.click('button[type=submit]');
  // The consent page, unless the provider skips it.
  const consent = page.locator('input[name=prompt][value=consent]');
  await Promise.race([
    reached,
    consent.waitFor({ state: 'attached' }).then(() => page.click('button[type=submit]')),
  ]);
  console.log(`handoff ${await reached}`);
  clearTimeout(timer);
  await browser.close();
  process.exit(0);
} catch (error) {
  console.log(`browser failed: ${error.message.split('\n')[0]}`);
  await browser.close();
  process.exit(1);
}
