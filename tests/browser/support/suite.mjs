// What each file of tests begins with: a machine, a web site and a browser that is ready, for each browser of the run.
// @ts-check

import { after, afterEach, before, beforeEach, describe } from 'node:test';
import { browsers, TestBrowser } from './Browser.mjs';
import { awaitThat } from './deadline.mjs';
import { Machine } from './Machine.mjs';
import { visit } from './outcomes.mjs';
import { WebSite } from './WebSite.mjs';

export { outcomeOf, visit } from './outcomes.mjs';

/** @typedef {import('./outcomes.mjs').Outcome} Outcome */
/** What the tests of one browser share. Each test begins with first settings and leaves no tab.
 * @typedef {object} Surroundings
 * @property {Machine} machine
 * @property {WebSite} site
 * @property {TestBrowser} browser
 */

/**
 * @param {string} subject what the tests are about, as it reads in front of "in firefox"
 * @param {(surroundings: Surroundings, name: import('./Browser.mjs').BrowserName) => void} addTests
 * @param {{ startsBrowser?: boolean, only?: import('./Browser.mjs').BrowserName }} [options] without the browser, which each test then
 *     starts itself; in that one alone, for what the other has not
 */
export function inEachBrowser(subject, addTests, { startsBrowser = true, only } = {}) {
    for (const name of only ? [only] : browsers) {
        describe(`${subject}, in ${name}`, { skip: browsers.includes(name) ? false : 'this run is for the other browser' }, () => {
            const surroundings = /** @type {Surroundings} */ ({});
            before(async () => {
                surroundings.machine = await Machine.started();
                surroundings.site = await WebSite.started();
                if (startsBrowser) {
                    surroundings.browser = await TestBrowser.ready(name, surroundings.machine, surroundings.site.port);
                }
            });
            beforeEach(() => {
                surroundings.machine.reset();
                surroundings.site.forget();
            });
            afterEach(async (test) => {
                if (/** @type {any} */ (test).passed === false) {
                    console.error(surroundings.machine.messages());
                }
                if (startsBrowser) {
                    await closeTabs(surroundings.browser);
                }
            });
            after(async () => {
                await surroundings.browser?.close();
                await surroundings.site?.stop();
                await surroundings.machine?.remove();
            });
            addTests(surroundings, name);
        });
    }
}

/** All but one empty tab: a browser without any would end. @param {TestBrowser} browser */
async function closeTabs(browser) {
    const before = await browser.allTabs();
    await browser.tab();
    for (const tab of before) {
        await tab.close();
    }
}

/**
 * Changes what decides, and waits until this browser does as it says.
 * @param {Surroundings} surroundings
 * @param {string[]} words of sentrelctl
 * @param {string} address a page that the change is seen by
 * @param {Outcome} outcome
 */
export async function changeUntil({ browser, machine }, words, address, outcome) {
    const tab = await browser.tab();
    machine.ctl(...words);
    await awaitThat(`${address} to be ${outcome} after sentrelctl ${words.join(' ')}`,
        async () => (await visit(tab, address)) === outcome);
    await tab.close();
}
