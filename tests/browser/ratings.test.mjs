// Pages that lists of rated sites speak of: by rating, category and phishing, and when no rating can be had.
// @ts-check

import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import { before, test } from 'node:test';
import { awaitThat } from './support/deadline.mjs';
import { changeUntil, inEachBrowser, visit } from './support/suite.mjs';

inEachBrowser('Rated pages', (here) => {
    /** @param {string} name @param {string[]} hosts @param {...string} options */
    function importList(name, hosts, ...options) {
        const file = path.join(here.machine.root, `${name}.txt`);
        fs.writeFileSync(file, hosts.map((host) => `${host}\n`).join(''));
        here.machine.ctl('ratings', 'import', name, file, '--format', 'domains', ...options);
    }

    before(async () => {
        importList('dangers', ['red.example'], '--rating', '60');
        importList('doubts', ['yellow.example'], '--rating', '35');
        importList('safe', ['green.example'], '--rating', '0');
        importList('fun', ['game.example'], '--rating', '0', '--category', 'Games');
        importList('fakes', ['bank.example'], '--rating', '0', '--phishing');
        importList('last', ['last.example'], '--rating', '60');
        const tab = await here.browser.tab();
        await awaitThat('the browser to have the lists', async () => (await visit(tab, 'http://last.example/')) === 'blocked');
        await tab.close();
    });

    /** @param {string} address @param {'blocked' | 'warning' | 'open'} outcome */
    async function visited(address, outcome) {
        const tab = await here.browser.tab();
        await awaitThat(`${address} to be ${outcome}`, async () => (await visit(tab, address)) === outcome, 6000);
        if (outcome !== 'open') {
            await tab.awaitOwnPage(outcome);
        }
        return tab;
    }

    test('a red one is blocked, with the rating and the list that gave it', async () => {
        const tab = await visited('http://www.red.example/', 'blocked');
        assert.match(await tab.text(), /Rating\n+red: dangerous, by the list dangers/);
        assert.ok(!here.site.wasAsked('www.red.example'));
        await awaitThat('its report', () => here.machine.hasReported('http://www.red.example/'));
    });

    test('a yellow one is warned of', async () => {
        const tab = await visited('http://yellow.example/', 'warning');
        assert.match(await tab.text(), /Rating\n+yellow: doubtful, by the list doubts/);
        assert.ok(!here.site.wasAsked('yellow.example'));
    });

    test('a green one is opened while pages without a rating are blocked', async () => {
        await changeUntil(here, ['prefs', 'set', 'unrated-sites', 'block'], 'http://unknown.example/', 'blocked');
        await visited('http://green.example/', 'open');
    });

    test('one in a blocked category is blocked, and says which', async () => {
        await visited('http://game.example/', 'open');
        here.machine.ctl('prefs', 'set', 'category-blocking', 'on');
        here.machine.ctl('categories', 'set', 'Games');
        const tab = await visited('http://game.example/', 'blocked');
        assert.match(await tab.text(), /It is in a category that is blocked/);
        assert.match(await tab.text(), /Category\n+Games/);
        here.machine.ctl('categories', 'set', '--none');
    });

    test('one that steals passwords is blocked while that is on', async () => {
        here.machine.sql("insert or replace into vxsetting values(cast('GenPolicyBlockPhishingAction' || char(0) as text), x'01000000')");
        const tab = await visited('http://bank.example/', 'blocked');
        assert.match(await tab.text(), /steals passwords/);
        here.machine.sql("insert or replace into vxsetting values(cast('GenPolicyBlockPhishingAction' || char(0) as text), x'00000000')");
    });

    test('with lists that are too old every page is blocked while that is on, but for those of the list of sites', async () => {
        here.machine.ctl('list', 'allow', 'listed.example');
        for (const name of ['dangers', 'doubts', 'safe', 'fun', 'fakes', 'last']) {
            here.machine.ctl('ratings', 'remove', name);
        }
        importList('old', ['unrelated.example'], '--rating', '60');
        const longAgo = Date.now() / 1000 - 40 * 24 * 3600;
        fs.utimesSync(path.join(here.machine.root, 'old.txt'), longAgo, longAgo);
        here.machine.ctl('ratings', 'update', 'old');
        here.machine.sql("insert or replace into vxsetting values(cast('GenPolicyRPXUnReachableAction' || char(0) as text), x'01000000')");
        const tab = await visited('http://any.example/', 'blocked');
        assert.match(await tab.text(), /Its rating cannot be looked up at the moment/);
        await visited('http://listed.example/', 'open');
        here.machine.sql("insert or replace into vxsetting values(cast('GenPolicyRPXUnReachableAction' || char(0) as text), x'00000000')");
        await visited('http://any.example/', 'open');
    });
});
