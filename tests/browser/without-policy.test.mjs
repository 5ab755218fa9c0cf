// Chromium with the extension given by its user: pages cannot be held back, and what can be done then is done.
// @ts-check

import assert from 'node:assert/strict';
import { after, before, describe, test } from 'node:test';
import { browsers, TestBrowser } from './support/Browser.mjs';
import { awaitThat } from './support/deadline.mjs';
import { Machine } from './support/Machine.mjs';
import { changeUntil, visit } from './support/suite.mjs';
import { WebSite } from './support/WebSite.mjs';

describe('Chromium without a policy', { skip: browsers.includes('chromium') ? false : 'this run is for firefox' }, () => {
    /** @type {import('./support/suite.mjs').Surroundings} */
    const here = /** @type {any} */ ({});
    before(async () => {
        here.machine = await Machine.started();
        here.site = await WebSite.started();
        here.browser = new TestBrowser('chromium', here.machine, here.site.port, { extension: 'by its user' });
        await here.browser.start();
        await here.browser.awaitExtension();
    });
    after(async () => {
        await here.browser?.close();
        await here.site?.stop();
        await here.machine?.remove();
    });

    test('refuses what the list names, shows our page and reports it once', async () => {
        await changeUntil(here, ['list', 'block', 'blocked.example/a', 'settled.example'], 'http://settled.example/', 'blocked');
        here.site.forget();
        const tab = await here.browser.open('http://blocked.example/a/b');
        await tab.awaitOwnPage('blocked');
        await awaitThat('its report', () => here.machine.hasReported('http://blocked.example/a/b'));
        assert.ok(!here.site.wasAsked('blocked.example'));
        assert.equal(await visit(tab, 'http://blocked.example/ab'), 'open');
        assert.equal(here.machine.log().filter((report) => report.url === 'http://blocked.example/a/b').length, 1);
    });

    test('refuses a frame that the list names, and reports it', async () => {
        here.site.page('outer.example/', '<iframe src="http://blocked.example/a/frame"></iframe>');
        const tab = await here.browser.open('http://outer.example/');
        await tab.awaitPage('http://outer.example/');
        await awaitThat('its report', () => here.machine.hasReported('http://blocked.example/a/frame'));
        assert.ok(!here.site.wasAsked('blocked.example/a/frame'));
    });

    test('warns in place of a page that is warned of', async () => {
        await changeUntil(here, ['prefs', 'set', 'unrated-sites', 'warn'], 'http://doubtful.example/', 'warning');
        here.machine.ctl('prefs', 'set', 'unrated-sites', 'allow');
    });

    test('says on the status page that pages cannot be held back', async () => {
        const tab = await here.browser.open('http://settled.example/');
        await tab.awaitOwnPage('blocked');
        await tab.ask("void (location.href = 'status.html')");
        await tab.awaitOwnPage('status');
        assert.match(await tab.text(), /Pages\n+cannot be held back: the extension was not installed by policy/);
    });
});
