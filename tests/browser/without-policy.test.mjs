// Chromium with the extension given by its user: pages cannot be held back, and what can be done then is done.
// @ts-check

import assert from 'node:assert/strict';
import fs from 'node:fs';
import { after, before, describe, test } from 'node:test';
import { browsers, TestBrowser } from './support/Browser.mjs';
import { awaitThat, within } from './support/deadline.mjs';
import { HostPeer } from './support/HostPeer.mjs';
import { browserHost, Machine } from './support/Machine.mjs';
import { writeSettings } from './support/settingsFile.mjs';
import { changeUntil, visit } from './support/suite.mjs';
import { WebSite } from './support/WebSite.mjs';

/** @type {{ entry: string, fits: string[], not: string[] }[]} */
const vectors = JSON.parse(fs.readFileSync(new URL('../data/decisions/entries.json', import.meta.url), 'utf8')).entries;
/** What no filter can say exactly, by entry and page: it is decided when the page has been asked for. */
/** @type {string[]} */
const notSaid = [
    'site.example: https://SITE.example./',
    '*.site.example:8443: https://www.site.example:8443/a',
    '*.site.example:8443: http://site.example:8443/',
    'https://*.site.example/a: https://www.site.example/a/b',
    '*:8080: http://site.example:8080/',
    '*/admin: https://site.example/admin/x',
    'site.example/a: https://site.example/%61',
];

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

    /** The entries of all vectors, as the host reads them. */
    async function readEntries() {
        const host = new HostPeer(browserHost, { ...here.machine.environment, XDG_CACHE_HOME: `${here.machine.root}/cache` });
        try {
            const entries = vectors.map(({ entry }) => ({ text: entry, action: 1 }));
            writeSettings(here.machine.settingsFile, { numbers: {}, entries, categories: [], ranges: [] });
            await awaitThat('the host to have them all', () => host.settings?.rules?.entries.length === vectors.length);
            return /** @type {any[][]} */ (host.settings?.rules.entries);
        } finally {
            await host.end();
            here.machine.reset();
        }
    }

    /** Which of the addresses the browser would refuse under each of these rules. */
    async function refused(/** @type {{ rules: any, urls: string[] }[]} */ questions) {
        await changeUntil(here, ['list', 'block', 'settled.example'], 'http://settled.example/', 'blocked');
        const tab = await here.browser.open('http://settled.example/');
        await tab.awaitOwnPage('blocked');
        return /** @type {string[][]} */ (JSON.parse(String(await within('the filters', tab.page.evaluate(`(async () => {
            const { giveAhead } = await import('/background/RulesAhead.js');
            const answers = [];
            for (const { rules, urls } of ${JSON.stringify(questions)}) {
                await giveAhead(rules);
                const refused = [];
                for (const url of urls) {
                    const { matchedRules } = await chrome.declarativeNetRequest.testMatchOutcome({ url: new URL(url).href, type: 'main_frame' });
                    const given = await chrome.declarativeNetRequest.getDynamicRules();
                    if (matchedRules.some(({ ruleId }) => given.find((rule) => rule.id === ruleId)?.action.type === 'block')) {
                        refused.push(url);
                    }
                }
                answers.push(refused);
            }
            return JSON.stringify(answers);
        })()`), 60000))));
    }

    test('refuses no page that an entry does not name, and those that it names but where no filter can say it', { timeout: 120000 }, async () => {
        const entries = await readEntries();
        const answers = await refused(vectors.map(({ fits, not }, at) =>
            ({ rules: { protecting: true, allowsFirst: false, entries: [entries[at]] }, urls: [...fits, ...not] })));
        const wrong = vectors.flatMap(({ entry, not }, at) => not.filter((url) => answers[at].includes(url)).map((url) => `${entry}: ${url}`));
        assert.deepEqual(wrong, []);
        const left = vectors.flatMap(({ entry, fits }, at) => fits.filter((url) => !answers[at].includes(url)).map((url) => `${entry}: ${url}`));
        assert.deepEqual(left, notSaid);
    });

    test('excepts every page that an allow entry with precedence names', { timeout: 120000 }, async () => {
        const entries = (await readEntries()).map(([, ...entry]) => [true, ...entry]);
        const every = [false, '*', '', '', true, 0, ''];
        const answers = await refused(vectors.map(({ fits }, at) =>
            ({ rules: { protecting: true, allowsFirst: true, entries: [every, entries[at]] }, urls: [...fits, 'https://further.invalid/'] })));
        const wrong = vectors.flatMap(({ entry, fits }, at) => fits.filter((url) => answers[at].includes(url)).map((url) => `${entry}: ${url}`));
        assert.deepEqual(wrong, []);
        const open = vectors.filter((_, at) => !answers[at].includes('https://further.invalid/')).map(({ entry }) => entry);
        assert.deepEqual(open, ['*', 'https://*/', '*:8080', '*/admin']);
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
