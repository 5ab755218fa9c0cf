// A policy of the management server, over MQTT with TLS and signed: it changes what a page does, and the page says that it was one.
// @ts-check

import assert from 'node:assert/strict';
import { before, test } from 'node:test';
import { awaitThat } from './support/deadline.mjs';
import { ManagementServer } from './support/ManagementServer.mjs';
import { inEachBrowser, visit } from './support/suite.mjs';

/** @typedef {import('./support/ManagementServer.mjs').Features} Features */

/**
 * A whole policy. Categories stay as they are, and so do ratings without an action for them.
 * @param {{ sites?: Record<string, 0 | 1>, unrated?: 'allow' | 'warn' | 'block' }} parts of a site 1: blocked
 * @returns {Features}
 */
function policyOf({ sites = {}, unrated }) {
    const entries = Object.entries(sites).flatMap(([site, action], place) => [[`szSite${place}`, site], [`Action${place}`, action]]);
    return {
        KPF_General: { Sentrel: { bEnableSentrel: true } },
        KPF_ContentFiltering: {
            ContentActions: { bEnableCategorization: -1 },
            RatingActions: { uiOverall: unrated ? 0o042 + ({ allow: 1, warn: 2, block: 4 }[unrated] << 6) : 0 },
        },
        KPF_BlockAndAllowList: {
            BlockAndAllowList: { uiSiteCount: Object.keys(sites).length, bPrecedenceOverProhibitLists: 0, ...Object.fromEntries(entries) },
        },
    };
}

const byPolicy = /Set by\n+a policy of your organisation/;

inEachBrowser('A policy', (here) => {
    /** @type {ManagementServer} */
    let server;
    before(async () => {
        server = await ManagementServer.enrol(here.machine);
    });

    /** With its words there. @param {string} address @param {import('./support/suite.mjs').Outcome} outcome */
    const awaitOutcome = async (address, outcome) => {
        const tab = await here.browser.tab();
        await awaitThat(`${address} to be ${outcome}`, async () => (await visit(tab, address)) === outcome);
        if (outcome !== 'open') {
            await tab.awaitOwnPage(outcome);
        }
        return tab;
    };

    test('blocks a page that was open, and the page says that a policy rules it', async () => {
        await awaitOutcome('http://games.example/', 'open');
        server.push(policyOf({ sites: { 'games.example': 1 } }));
        const tab = await awaitOutcome('http://games.example/', 'blocked');
        const text = await tab.text();
        assert.match(text, byPolicy);
        assert.match(text, /Entry\n+games\.example \(number 1 of the list\)/);
        here.site.forget();
        assert.equal(await visit(tab, 'http://games.example/level'), 'blocked');
        assert.ok(!here.site.wasAsked('games.example'));
    });

    test('frees a page: within a second the page of its block says so', async () => {
        server.push(policyOf({ sites: { 'bets.example': 1 } }));
        const tab = await awaitOutcome('http://bets.example/', 'blocked');
        server.push(policyOf({ sites: { 'bets.example': 0 } }));
        await awaitThat('our page to say that it is allowed now', async () => /allowed now/.test(await tab.text()), 1000);
        await tab.press('open');
        await tab.awaitPage('http://bets.example/');
    });

    test('has unrated sites warned of, and the warning says that a policy rules it', async () => {
        server.push(policyOf({ unrated: 'warn' }));
        const tab = await awaitOutcome('http://doubtful.example/', 'warning');
        assert.match(await tab.text(), byPolicy);
    });

    test('leaves what it does not rule to the machine, and the page of a block says so', async () => {
        server.push(policyOf({ sites: { 'games.example': 1 } }));
        here.machine.ctl('prefs', 'set', 'unrated-sites', 'block');
        const tab = await awaitOutcome('http://unknown.example/', 'blocked');
        assert.match(await tab.text(), /Set by\n+this machine's own settings/);
    });

    test('is named on the status page as what the machine is managed by', async () => {
        server.push(policyOf({ sites: { 'status.example': 1 } }));
        const tab = await awaitOutcome('http://status.example/', 'blocked');
        await tab.ask("void (location.href = 'status.html')");
        await tab.awaitOwnPage('status');
        assert.match(await tab.text(), /Managed\n+by your organisation/);
    });

    test('with the signature of a stranger changes nothing', async () => {
        server.push(policyOf({ sites: { 'other.example': 1 } }));
        const tab = await awaitOutcome('http://other.example/', 'blocked');
        server.makeKeys('stranger');
        const refused = server.tryPush(policyOf({ sites: { 'free.example': 1 } }), 'stranger.key');
        assert.notEqual(refused.status, 0);
        assert.match(refused.stdout + refused.stderr, /signature/);
        assert.equal(await visit(tab, 'http://free.example/'), 'open');
        assert.equal(await visit(tab, 'http://other.example/'), 'blocked');
    });
});
