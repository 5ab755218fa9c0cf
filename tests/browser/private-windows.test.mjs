// Private windows: neither browser runs the extension there on its own, which the extension and the doctor say; with Firefox's policy
// they are decided like any other, and nothing of them is kept.
// @ts-check

import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import { afterEach, test } from 'node:test';
import { TestBrowser } from './support/Browser.mjs';
import { awaitThat } from './support/deadline.mjs';
import { inEachBrowser, outcomeOf } from './support/suite.mjs';

const firefoxPolicy = { policies: { ExtensionSettings: { 'extension@sentrel.invalid': { private_browsing: true } } } };

inEachBrowser('A private window', (here, browserName) => {
    /** @type {TestBrowser | undefined} */
    let browser;
    const policyFile = () => `${here.machine.root}/etc/firefox/policies/policies.json`;
    afterEach(async () => {
        await browser?.close();
        browser = undefined;
        fs.rmSync(policyFile(), { force: true });
    });

    /** A browser whose profile has the extension already, not running. @param {string[]} blocked */
    const used = async (...blocked) => {
        here.machine.ctl('list', 'block', ...blocked);
        browser = await TestBrowser.ready(browserName, here.machine, here.site.port);
        return browser;
    };
    /** Starts it anew with a private window there. @param {TestBrowser} closed @param {string} address */
    const openPrivately = async (closed, address) => {
        await closed.close();
        await closed.start([browserName === 'firefox' ? '-private-window' : '--incognito', address]);
    };
    /** @param {TestBrowser} started @param {string} outcome */
    const shows = (started, outcome) => async () => (await Promise.all((await started.allTabs()).map(outcomeOf))).includes(/** @type {any} */ (outcome));
    /** Our page in an ordinary window. @param {TestBrowser} started @param {string} blocked @param {string} page */
    const openOwn = async (started, blocked, page) => {
        const tab = await started.open(blocked);
        await tab.awaitOwnPage('blocked');
        await tab.ask(`location.assign('${page}.html')`);
        await tab.awaitOwnPage(page);
        return tab;
    };
    /** What the doctor says of them. @returns {{ result: string, what: string }} */
    const diagnosis = () => {
        const { checks } = JSON.parse(here.machine.tryCtl(['doctor', '--json=short']).stdout);
        return checks.find((/** @type {any} */ { check }) => check === 'private-windows');
    };

    test('is not decided on its own; the button, the status page and the doctor say so', async () => {
        const started = await used('secret.example');
        const tab = await openOwn(started, 'http://secret.example/', 'status');
        await awaitThat('the status page to say it',
            async () => /Private windows\n+are not decided: the browser does not run Sentrel there/.test(await tab.text()));
        assert.match(await tab.ask('chrome.action.getTitle({})'), /^Sentrel: pages are decided\nPages in private windows are not decided$/);
        assert.equal(diagnosis().result, 'warning');
        assert.match(diagnosis().what, /^pages in private windows of Firefox and Chromium are not decided$/);
        here.site.forget();
        await openPrivately(started, 'http://secret.example/private');
        await awaitThat('the page to be fetched', () => here.site.wasAsked('secret.example/private'), 20000);
        await awaitThat('the page to be shown', shows(started, 'open'));
        assert.ok(!here.machine.hasReported('http://secret.example/private'));
    });

    test('is decided with the policy of Firefox, reported, and not kept for the dashboard', { skip: browserName !== 'firefox' }, async () => {
        fs.mkdirSync(path.dirname(policyFile()), { recursive: true });
        fs.writeFileSync(policyFile(), JSON.stringify(firefoxPolicy));
        assert.equal(diagnosis().what, 'pages in private windows of Chromium are not decided');
        const started = await used('secret.example', 'usual.example');
        await openPrivately(started, 'http://secret.example/private');
        await awaitThat('our page', shows(started, 'blocked'), 20000);
        await awaitThat('its report', () => here.machine.hasReported('http://secret.example/private'));
        assert.ok(!here.site.wasAsked('secret.example'));
        await started.close();
        await started.start();
        await started.awaitExtension();
        const status = await openOwn(started, 'http://usual.example/', 'status');
        await awaitThat('the status page to say it', async () => /Private windows\n+are decided too/.test(await status.text()));
        assert.doesNotMatch(await status.ask('chrome.action.getTitle({})'), /private/);
        const kept = String(await status.ask(`import('../background/History.js').then(({ History }) => new History().read()).then(JSON.stringify)`));
        assert.match(kept, /usual\.example/);
        assert.doesNotMatch(kept, /secret/);
    });
}, { startsBrowser: false });
