// Who decides on pages decides the same: the host, sentrelctl check, and the extension's own rules inside the browser, over ten
// thousand generated addresses under ten generated settings. The browser's own way of reading an address is part of it.
// @ts-check

import assert from 'node:assert/strict';
import fs from 'node:fs';
import { after, before, test } from 'node:test';
import { awaitThat, within } from './support/deadline.mjs';
import { PageGenerator } from './support/GeneratedPages.mjs';
import { HostPeer } from './support/HostPeer.mjs';
import { browserHost } from './support/Machine.mjs';
import { writeSettings } from './support/settingsFile.mjs';
import { changeUntil, inEachBrowser } from './support/suite.mjs';

const sets = 10;
const addressesPerSet = 1000;

/** Name, hosts, and what sentrelctl is told of them. */
const ratingLists = [
    ['red', 'site.example\nпример.example\n192.0.2.7\n', '--format', 'domains', '--rating', '60'],
    ['yellow', '0.0.0.0 other.example\n0.0.0.0 www.site.example\n', '--format', 'hosts', '--rating', '35'],
    ['green', 'bücher.example\nr3---sn.site.example\n', '--format', 'domains', '--rating', '5'],
    ['games', '||my_site.example^\n||mysite.example^\n', '--format', 'adblock', '--rating', '-100', '--category', 'Games', '--category', 'Café'],
    ['phishing', '*.google.evil.example CNAME .\nfaß.example CNAME .\nxn--ls8h.example CNAME .\n', '--format', 'rpz', '--rating', '20', '--phishing'],
];

/** Members in one order, without those that only one side has. @param {Record<string, any>} decision */
function comparable({ id, type, ruled, ...decision }) {
    return JSON.stringify(decision, Object.keys({ ...decision, place: 0, text: 0, allows: 0, name: 0, number: 0 }).sort());
}

/** What sentrelctl tells of a decision too. @param {Record<string, any>} host */
function asChecked(host) {
    return [host.url, host.action, host.by, host.entry?.text, host.overruled?.text, host.range?.text, host.category?.name, host.rating,
        host.ratingName, host.safeSearch || undefined].map((value) => value ?? null);
}

/** The same of what sentrelctl said. @param {Record<string, any>} checked */
function fromCheck(checked) {
    return [checked.url, checked.action, checked.decided_by, checked.entry?.url, checked.overruled?.url, checked.private_range,
        checked.category, checked.rating, checked.rating_name, checked.safe_search].map((value) => value ?? null);
}

inEachBrowser('The deciders', (here) => {
    /** @type {HostPeer} */
    let host;
    before(() => {
        host = new HostPeer(browserHost, { ...here.machine.environment, XDG_CACHE_HOME: `${here.machine.root}/cache` });
    });
    after(() => host?.end());

    /** Puts settings in force that begin with a mark of theirs. @param {PageGenerator} generator @param {number} set */
    async function putSettings(generator, set) {
        const settings = generator.settings();
        const mark = `mark-${set}.invalid`;
        settings.entries.unshift({ action: 0, text: mark });
        writeSettings(here.machine.settingsFile, settings);
        const wanted = new Set(settings.entries.map((entry) => entry.text)).size;
        await awaitThat(`the host to have the settings of set ${set}`, () => {
            const entries = host.settings?.rules?.entries;
            return entries?.length === wanted && entries[0][1] === mark;
        });
    }

    /** Brings in lists that know something of the generated addresses. */
    async function bringInRatings() {
        for (const [name, hosts, ...words] of ratingLists) {
            const file = `${here.machine.root}/${name}.txt`;
            fs.writeFileSync(file, hosts);
            here.machine.ctl('ratings', 'import', name, file, ...words);
        }
        await awaitThat('the host to have the rating lists', () => host.settings?.ratings.lists.length === ratingLists.length
            && (host.ratings?.classes.length ?? 0) > ratingLists.length);
    }

    test('agree on ten thousand addresses', { timeout: 240000 }, async () => {
        await changeUntil(here, ['list', 'block', 'place.example'], 'http://place.example/', 'blocked');
        const tab = await here.browser.open('http://place.example/');
        await tab.awaitOwnPage('blocked');
        await bringInRatings();
        const seen = new Set();
        for (let set = 1; set <= sets; ++set) {
            const generator = new PageGenerator(set);
            await putSettings(generator, set);
            const addresses = Array.from({ length: addressesPerSet }, () => generator.address());
            const byHost = await host.decide(addresses);
            const byBrowser = JSON.parse(String(await within(`the decisions of set ${set} in the browser`, tab.page.evaluate(`(async () => {
                const { PageRules } = await import('/decision/PageRules.js');
                const { Ratings } = await import('/decision/Ratings.js');
                const rules = new PageRules(${JSON.stringify(host.settings?.rules)});
                const ratings = new Ratings(${JSON.stringify(host.ratings)});
                return JSON.stringify(${JSON.stringify(addresses)}.map((address) => rules.decide(address, (url) => ratings.standingOf(url))));
            })()`))));
            const byCheck = JSON.parse(here.machine.ctlWithInput(addresses.join('\n'), 'check', '--from', '-', '--json=short'));
            addresses.forEach((address, at) => {
                const where = `set ${set}, ${JSON.stringify(address)}`;
                assert.equal(comparable(byBrowser[at]), comparable(byHost[at]), where);
                assert.deepEqual(fromCheck(byCheck[at]), asChecked(byHost[at]), where);
                seen.add(`${byHost[at].by}/${byHost[at].action}`);
            });
        }
        for (const kind of ['address/allow', 'protection/allow', 'list/allow', 'list/block', 'private range/allow', 'category/block',
            'phishing/block', 'rating/allow', 'rating/warn', 'rating/block']) {
            assert.ok(seen.has(kind), `none of the addresses came out as ${kind}, but as ${[...seen].join(', ')}`);
        }
    });
});
