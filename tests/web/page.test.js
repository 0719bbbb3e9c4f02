// The page in a real browser: refusals, a life of the device by clicks, looks, and a long journal.
// Environment: EXTENDER the program, SHOTS a folder for screenshots, CHROMIUM the browser.
import assert from 'node:assert/strict';
import { spawn, spawnSync } from 'node:child_process';
import { mkdirSync, mkdtempSync, readFileSync, writeFileSync } from 'node:fs';
import { request } from 'node:http';
import { createRequire } from 'node:module';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { createInterface } from 'node:readline';
import { after, before, test } from 'node:test';
import puppeteer from 'puppeteer-core';

const extender = process.env.EXTENDER;
const shots = process.env.SHOTS;
const axe = readFileSync(createRequire(import.meta.url).resolve('axe-core/axe.min.js'), 'utf8');
const patience = { timeout: 300000 };
const children = [];
let browser;

async function device(...options) {
  const child = spawn(extender, ['web', ...options], { stdio: ['ignore', 'pipe', 'inherit'] });
  children.push(child);
  for await (const line of createInterface({ input: child.stdout })) {
    return new URL(line);
  }
  throw new Error('extender web ended');
}

async function open(url, width = 1400, height = 1000, features = []) {
  const page = await browser.newPage();
  page.on('pageerror', (error) => assert.fail(error));
  await page.setViewport({ width, height });
  await page.emulateMediaFeatures(features);
  await page.goto(url.href, { waitUntil: 'domcontentloaded', ...patience });
  await page.waitForFunction(() => document.querySelector('#facts dd'), patience);
  return page;
}

const press = (page, group, label) => page.evaluate((where, text) => {
  const button = [...document.querySelectorAll(`${where} button`)].find((one) => one.textContent === text);
  button.click();
}, group, label);

const fact = (page, name, wanted) => page.waitForFunction((term, text) =>
  [...document.querySelectorAll('#facts dt')].find((one) => one.textContent === term)?.nextSibling.textContent.includes(text), patience, name, wanted);

const outcome = (page, text) => page.waitForFunction((wanted) => document.getElementById('outcome').textContent.includes(wanted), patience, text);

// The labels of all rows of the sequence, in view or not.
const rows = (page) => page.evaluate(async () => {
  const box = document.getElementById('rows');
  const labels = new Map();
  for (box.scrollTop = 0; ; box.scrollTop += box.clientHeight / 2) {
    await new Promise((drawn) => { requestAnimationFrame(() => requestAnimationFrame(drawn)); });
    for (const row of box.querySelectorAll('.row')) labels.set(Number(row.dataset.index), row.getAttribute('aria-label'));
    if (box.scrollTop + box.clientHeight >= box.scrollHeight - 1) return [...labels.keys()].sort((a, b) => a - b).map((index) => labels.get(index));
  }
});

async function awaitRow(page, pattern) {
  for (const end = Date.now() + patience.timeout; ;) {
    const all = await rows(page);
    const found = all.find((text) => pattern.test(text));
    if (found) return found;
    assert(Date.now() < end, `no row is ${pattern}:\n${all.join('\n')}`);
  }
}

// Unfolds the row whose label fits.
async function unfold(page, pattern) {
  await page.focus('#rows .sizer');
  const index = (await rows(page)).findIndex((text) => pattern.test(text));
  await page.keyboard.press('Home');
  for (let at = 0; at < index; at++) await page.keyboard.press('ArrowDown');
  return page.$eval('#message', (box) => box.textContent);
}

before(async () => {
  mkdirSync(shots, { recursive: true });
  browser = await puppeteer.launch({ executablePath: process.env.CHROMIUM ?? '/usr/bin/chromium', args: ['--headless=new', '--no-sandbox'], timeout: 180000, protocolTimeout: 600000 });
});

after(async () => {
  await browser?.close();
  for (const child of children) child.kill('SIGTERM');
});

test('whoever is not this page is refused', async () => {
  const url = await device();
  const status = (path, method, headers) => new Promise((resolve) => {
    request({ host: '127.0.0.1', port: url.port, path, method, headers }, (answer) => resolve(answer.resume().statusCode)).end(method === 'POST' ? '{"line":"true"}' : '');
  });
  const host = url.host;
  const json = { 'Content-Type': 'application/json' };
  const rows = [
    ['the page itself', url.pathname, 'GET', { host }, 200],
    ['typed into the address bar', url.pathname, 'GET', { host, 'Sec-Fetch-Site': 'none' }, 200],
    ['a command of the page', `${url.pathname}run`, 'POST', { host, ...json, Origin: url.origin, 'Sec-Fetch-Site': 'same-origin' }, 200],
    ['a host of another name', url.pathname, 'GET', { host: `rebound.example:${url.port}` }, 403],
    ['a host on another port', url.pathname, 'GET', { host: '127.0.0.1:1' }, 403],
    ['another site that shows it', url.pathname, 'GET', { host, 'Sec-Fetch-Site': 'cross-site' }, 403],
    ['another port of this host', url.pathname, 'GET', { host, 'Sec-Fetch-Site': 'same-site' }, 403],
    ['another site that commands', `${url.pathname}run`, 'POST', { host, ...json, Origin: 'http://rebound.example' }, 403],
    ['a form of another site', `${url.pathname}run`, 'POST', { host, 'Content-Type': 'text/plain' }, 400],
    ['no token', '/', 'GET', { host }, 403],
    ['another token', `/${'0'.repeat(32)}/`, 'GET', { host }, 403],
  ];
  for (const [name, path, method, headers, wanted] of rows) {
    assert.equal(await status(path, method, headers), wanted, name);
  }
});

test('a life of the device by clicks', async () => {
  const url = await device();
  const page = await open(url);
  await page.waitForFunction(() => document.querySelectorAll('#account option').length === 3, patience);
  await page.screenshot({ path: join(shots, 'new.png') });

  await press(page, '#commands', 'Bind');
  await outcome(page, 'cloud_msg bind: done');
  await fact(page, 'Bound', 'yes to alice@example.com');
  for (const arrow of [/program to broker: submitNoAccount bindDevice/, /broker to cloud: bindDevice/, /cloud to broker: error_code 0/, /broker to program: answer bindDevice/, /program to scripts: dropbreload/]) {
    await awaitRow(page, arrow);
  }

  // A message, unfolded by the keyboard, keeps its secrets until somebody asks.
  const request = /program to broker: submitNoAccount/;
  const covered = await unfold(page, request);
  assert.match(covered, /"cloudPassword": "••••"/);
  assert.match(covered, /0000 {2}a1 b2 00 44/);
  await page.screenshot({ path: join(shots, 'bound.png') });
  await page.click('#secrets');
  await awaitRow(page, request);
  assert.match(await unfold(page, request), /"cloudPassword": "Secret-1"/);
  await page.click('#secrets');
  await awaitRow(page, request);
  await page.click('#latest');

  await press(page, '#commands', 'Check');
  await page.waitForFunction(() => document.getElementById('progress-text').textContent.startsWith('The cloud was asked'), patience);
  // The server drops the first transfer at 40 %, and stalls the next one at once: the bar stands there.
  await page.$eval('[aria-label="Next download stalls at %"]', (field) => { field.value = 0; });
  for (const [label, words] of [['stalls at %', 'download stall 0%'], ['drops at %', 'download cut 40%']]) {
    await press(page, '#faults', label);
    await page.waitForFunction((text) => document.getElementById('spoiled').textContent.includes(text), patience, words);
  }
  await press(page, '#commands', 'Download');
  const stands = () => page.waitForFunction(() => /^Downloading, (39|40) %$/.test(document.getElementById('progress-text').textContent), patience);
  await stands();
  await page.screenshot({ path: join(shots, 'cut.png') });
  await press(page, '#commands', 'Bound?');
  await outcome(page, 'cloud_msg getBindStatus: yes');
  await stands();
  await awaitRow(page, /images to program: 200, 16\d+ bytes/);
  await press(page, '#faults', 'Cut');
  await page.waitForFunction(() => document.getElementById('progress-text').textContent === 'Downloaded, 100 %', patience);
  await awaitRow(page, /program to images: GET .*bytes=16\d+-/);
  await awaitRow(page, /images to program: 206, 24\d+ bytes/);
  await press(page, '#commands', 'Update');
  await fact(page, 'Firmware', '1.0.7 Build 20210611');
  await page.screenshot({ path: join(shots, 'updated.png') });

  // A page that is loaded again shows the same.
  const shown = (one) => one.$eval('#count', (text) => text.textContent);
  const again = await open(url);
  const count = await shown(page);
  await again.waitForFunction((text) => document.getElementById('count').textContent === text, patience, count);

  // What was clicked is a scenario that any run can play.
  const scenario = await page.evaluate(async () => (await fetch(document.getElementById('save-scenario').href)).text());
  const folder = mkdtempSync(join(tmpdir(), 'page-'));
  writeFileSync(join(folder, 'scenario.json'), scenario);
  const played = spawnSync(extender, ['run', '--scenario', join(folder, 'scenario.json'), '--journal', join(folder, 'journal'), '--', 'sh', '-c', 'cloud_msg check; cloud_msg download'], { encoding: 'utf8' });
  assert.equal(played.status, 0, played.stderr);
  const sent = readFileSync(join(folder, 'journal'), 'utf8').trim().split('\n').map((line) => JSON.parse(line)).filter((one) => one.kind === 'http' && one.method === 'GET').map((one) => one.sent);
  assert(Math.abs(sent[0] / sent.reduce((one, other) => one + other) - 0.4) < 0.001, JSON.stringify(sent));
});

test('it looks right, light and dark, narrow and wide', async () => {
  const url = await device();
  for (const scheme of ['light', 'dark']) {
    for (const [width, height] of [[400, 900], [1000, 900], [1600, 1100], [3840, 2160]]) {
      const page = await open(url, width, height, [{ name: 'prefers-color-scheme', value: scheme }]);
      if (scheme === 'light' && width === 400) {
        await page.waitForFunction(() => document.querySelectorAll('#account option').length === 3, patience);
        await press(page, '#commands', 'Bind');
        await press(page, '#faults', 'is error');
      }
      await outcome(page, 'cloud_msg bind');
      await page.evaluate(() => document.querySelectorAll('details').forEach((one) => { one.open = true; }));
      await page.waitForFunction(() => document.querySelectorAll('table').length === 4, patience);
      await page.evaluate(() => document.querySelector('#rows .row').click());
      await page.screenshot({ path: join(shots, `${scheme}-${width}.png`), fullPage: true });
      const wide = await page.evaluate(() => document.documentElement.scrollWidth - document.documentElement.clientWidth);
      assert.equal(wide, 0, `${scheme} ${width}: the page is wider than the window`);
      // A control whose text does not fit shows a part of it.
      const cut = await page.$$eval('button, .button, legend, dt, th, h2', (all) => all.filter((one) => one.scrollWidth > one.clientWidth + 1 && getComputedStyle(one).display !== 'inline').map((one) => one.textContent));
      assert.deepEqual(cut, [], `${scheme} ${width}: cut text`);
      const beyond = await page.$$eval('.scroll', (all) => all.filter((one) => one.scrollWidth > one.clientWidth).map((one) => one.textContent));
      assert.deepEqual(beyond, [], `${scheme} ${width}: a table wider than its place`);
      await page.evaluate(axe);
      const found = await page.evaluate(async () => (await window.axe.run()).violations.map(({ id, impact, nodes }) => ({ id, impact, where: nodes.map((node) => node.html.slice(0, 120)) })));
      assert.deepEqual(found.filter(({ impact }) => impact === 'serious' || impact === 'critical'), [], `${scheme} ${width}`);
      await page.close();
    }
  }
});

test('a long journal is no slow page', async () => {
  const url = await device();
  const first = await open(url);
  const lines = async (page, count) => page.waitForFunction((wanted) => parseInt(document.getElementById('count').textContent, 10) >= wanted, patience, count);
  const elements = (page) => page.evaluate(() => document.querySelectorAll('*').length);
  const fill = async (count) => {
    await first.$eval('#line', (field, text) => { field.value = text; }, `seq ${count} > /dev/console`);
    await press(first, '#run', 'Run');
  };
  await fill(1000);
  await lines(first, 1000);
  await first.waitForFunction(() => document.getElementById('outcome').textContent.includes('ended'), patience);
  const few = await elements(first);
  await fill(9000);
  await lines(first, 10000);
  const page = await open(url);
  await lines(page, 10000);
  const many = await elements(page);
  assert(many <= few + 40, `${few} elements with 1,000 lines, ${many} with 10,000`);
  await page.focus('#rows .sizer');
  await page.keyboard.press('Home');
  await page.waitForFunction(() => document.querySelector('#rows .row[aria-posinset="1"][aria-selected="true"]'), patience);
  const paint = await page.evaluate(() => performance.getEntriesByName('first-contentful-paint')[0].startTime);
  console.log(`10,000 lines: first paint after ${paint.toFixed(0)} ms, ${many} elements`);
});
