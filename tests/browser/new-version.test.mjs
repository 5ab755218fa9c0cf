// A changed extension that is installed over an older one while a browser is open: at which start of the browser it runs, and how
// it is had at once. docs/browser.md tells administrators so.
//
// The change is made in a copy of the tree and installed from there, as from a later release; the version is the installation's own.
// Chromium writes into the profile that it has fetched an extension and keeps it for the next start. That is waited for, as a
// browser that is closed before has not fetched it.
// @ts-check

import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import fs from 'node:fs';
import path from 'node:path';
import { afterEach, beforeEach, test } from 'node:test';
import { fileURLToPath } from 'node:url';
import { TestBrowser } from './support/Browser.mjs';
import { awaitThat } from './support/deadline.mjs';
import { browserHost } from './support/Machine.mjs';
import { inEachBrowser } from './support/suite.mjs';

const tree = fileURLToPath(new URL('../..', import.meta.url));
const blocked = 'http://blocked.example/';
let changes = 0;

/** Installs an extension that differs from all before in the page that says what is blocked.
 * @param {import('./support/Machine.mjs').Machine} machine @returns {string} what that page has for it */
function installChanged(machine) {
    const change = `change ${++changes}`;
    const copy = path.join(machine.root, change);
    for (const part of ['browser/extension', 'packaging/install-browser-extension']) {
        fs.cpSync(path.join(tree, part), path.join(copy, part), { recursive: true });
    }
    const page = path.join(copy, 'browser/extension/pages/blocked.html');
    fs.writeFileSync(page, fs.readFileSync(page, 'utf8').replace('</head>', `<meta name="change" content="${change}"></head>`));
    const done = spawnSync(`${copy}/packaging/install-browser-extension`, ['--root', machine.root, browserHost], { encoding: 'utf8' });
    assert.equal(done.status, 0, done.stderr);
    return change;
}

/** What the page has that says what is blocked; empty when it is not shown, as while the extension is replaced.
 * @param {TestBrowser} browser @returns {Promise<string>} */
async function changeShown(browser) {
    const tab = await browser.open(blocked);
    const change = "/-extension:/.test(location.protocol) && (document.querySelector('meta[name=change]')?.content ?? 'none')";
    const shown = await awaitThat('our page', () => tab.ask(change), 3000).catch(() => '');
    await tab.close();
    return shown;
}

/** @param {TestBrowser} browser @param {string} change */
async function awaitChange(browser, change) {
    await awaitThat(`our page with ${change}`, async () => (await changeShown(browser)) === change, 30000);
}

/** Whether Chromium has fetched an extension that runs from the next start. @param {TestBrowser} browser */
function keepsForNextStart(browser) {
    return ['Preferences', 'Secure Preferences'].some((name) => {
        const file = path.join(browser.profile, 'Default', name);
        return fs.existsSync(file) && fs.readFileSync(file, 'utf8').includes('"idle_install_info"');
    });
}

/** @param {(started: () => { browser: TestBrowser, before: string, change: string, restart: () => Promise<void> },
 *     here: import('./support/suite.mjs').Surroundings) => void} addTests
 *  @param {import('./support/Browser.mjs').BrowserName} only */
function withChangedExtension(addTests, only) {
    inEachBrowser('A changed extension', (here, name) => {
        /** @type {TestBrowser} */
        let browser;
        let before = '';
        let change = '';
        beforeEach(async () => {
            here.machine.ctl('list', 'block', 'blocked.example');
            browser = await TestBrowser.ready(name, here.machine, here.site.port);
            before = await changeShown(browser);
            assert.notEqual(before, '');
            change = installChanged(here.machine);
        });
        afterEach(async () => {
            await browser?.close();
        });
        const restart = async () => {
            await browser.close();
            here.site.forget();
            await browser.start();
            await browser.awaitExtension();
        };
        addTests(() => ({ browser, before, change, restart }), here);
    }, { startsBrowser: false, only });
}

withChangedExtension((started, here) => {
    test('runs from the next start of the browser', async () => {
        const { browser, change, restart } = started();
        await restart();
        await awaitChange(browser, change);
        assert.ok(!here.site.wasAsked('blocked.example'));
    });
}, 'firefox');

withChangedExtension((started, here) => {
    test('is fetched at the next start of the browser and runs from the one after it', async () => {
        const { browser, before, change, restart } = started();
        await restart();
        await awaitThat('Chromium to have fetched it', () => keepsForNextStart(browser), 60000);
        assert.equal(await changeShown(browser), before);
        await restart();
        await awaitChange(browser, change);
        assert.ok(!here.site.wasAsked('blocked.example'));
    });

    test('runs at once when the user has Chromium update its extensions', async () => {
        const { browser, change } = started();
        const tab = await browser.open('chrome://extensions/');
        const toolbar = "document.querySelector('extensions-manager')?.shadowRoot?.querySelector('extensions-toolbar')?.shadowRoot";
        await awaitThat('the switch of the developer mode', () => tab.ask(`Boolean(${toolbar}?.querySelector('#devMode'))`));
        await tab.ask(`${toolbar}.querySelector('#devMode').click()`);
        await awaitThat('the button', () => tab.ask(`(${toolbar}.querySelector('#updateNow')?.offsetWidth ?? 0) > 0`));
        await tab.ask(`${toolbar}.querySelector('#updateNow').click()`);
        await awaitChange(browser, change);
    });
}, 'chromium');
