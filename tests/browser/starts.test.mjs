// A browser that starts: its first pages come when nothing is loaded yet.
// @ts-check

import assert from 'node:assert/strict';
import { afterEach, test } from 'node:test';
import { TestBrowser } from './support/Browser.mjs';
import { awaitThat } from './support/deadline.mjs';
import { lookAt } from './support/looks.mjs';
import { inEachBrowser, outcomeOf } from './support/suite.mjs';

/** How often a browser is started for the test of cold starts. */
const coldStarts = Number(process.env.SENTREL_COLD_STARTS ?? 3);

inEachBrowser('A start', (here, browserName) => {
    /** @type {TestBrowser | undefined} */
    let browser;
    afterEach(async () => {
        await browser?.close();
        browser = undefined;
    });

    /** @param {TestBrowser} started @param {string} page */
    const shows = (started, page) => async () => {
        const outcomes = await Promise.all((await started.allTabs()).map(outcomeOf));
        return outcomes.includes(/** @type {any} */ (page));
    };

    test('of a fresh profile with a page that is blocked ends at our page', async () => {
        here.machine.ctl('list', 'block', 'first.example');
        browser = new TestBrowser(browserName, here.machine, here.site.port);
        await browser.start(['http://first.example/']);
        await awaitThat('our page in place of the first one', shows(browser, 'blocked'), 20000);
        assert.ok(!(await shows(browser, 'open')()));
    });

    test('of a used profile lets no page through that is blocked', async () => {
        here.machine.ctl('list', 'block', 'cold.example');
        browser = await TestBrowser.ready(browserName, here.machine, here.site.port);
        for (let round = 0; round < coldStarts; ++round) {
            await browser.close();
            await browser.start([`http://cold.example/${round}`]);
            await awaitThat('our page', shows(browser, 'blocked'), 20000);
        }
        assert.ok(!here.site.wasAsked('cold.example'));
    });

    test('without a hub lets no page through before the settings come', async () => {
        browser = new TestBrowser(browserName, here.machine, here.site.port);
        await here.machine.kill9('hub');
        await here.machine.kill9('keeper');
        await browser.start();
        await browser.awaitExtension();
        const tab = await browser.open('http://early.example/');
        await tab.awaitOwnPage('waiting');
        assert.match(await tab.text(), /The settings of this machine are not there yet: \S/);
        assert.ok(!here.site.wasAsked('early.example'));
        await lookAt(tab, 'waiting', browserName);
        here.machine.start('hub');
        here.machine.start('keeper');
        await tab.awaitPage('http://early.example/', 20000);
    });
}, { startsBrowser: false });
