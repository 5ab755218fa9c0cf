// What the dashboard tells of the pages that were decided, and what it does not keep.
// @ts-check

import assert from 'node:assert/strict';
import { test } from 'node:test';
import { awaitThat } from './support/deadline.mjs';
import { lookAt } from './support/looks.mjs';
import { changeUntil, inEachBrowser } from './support/suite.mjs';

inEachBrowser('The dashboard', (here, browserName) => {
    /** A tab with it. No program may send a tab there: the way is from a page of ours. @param {string} blocked a page that is */
    async function openDashboard(blocked) {
        const tab = await here.browser.open(blocked);
        await tab.awaitOwnPage('blocked');
        await tab.ask(`location.assign('dashboard.html')`);
        await tab.awaitOwnPage('dashboard');
        return tab;
    }

    /** @param {import('./support/Browser.mjs').Tab} tab @param {string} id @returns {Promise<string[][]>} */
    const rowsOf = (tab, id) => tab.ask(`[...document.querySelectorAll('#${id} tr')].map((row) => [...row.cells].map((cell) => cell.textContent))`);

    test('counts what was opened and names what was blocked, with the reason', async () => {
        await changeUntil(here, ['list', 'block', 'bets.example', 'games.example'], 'http://games.example/', 'blocked');
        const tab = await openDashboard('http://bets.example/');
        await tab.press('clear');
        await awaitThat('an empty dashboard', async () => (await rowsOf(tab, 'sites'))?.[0]?.[0] === 'Nothing yet');
        for (const address of ['http://bets.example/secret?word', 'http://bets.example/b', 'http://games.example/']) {
            const blocked = await here.browser.open(address);
            await blocked.awaitOwnPage('blocked');
        }
        const open = await here.browser.open('http://free.example/');
        await open.awaitPage('http://free.example/');
        await tab.press('month');
        await tab.press('day');
        await awaitThat('the counts', async () => /Last 24 hours: 1 opened, 0 warned of, 3 blocked\./.test(await tab.text()));
        assert.deepEqual(await rowsOf(tab, 'sites'), [['bets.example', '', '2'], ['games.example', '', '1']]);
        assert.deepEqual(await rowsOf(tab, 'reasons'), [['The list of sites', '', '3']]);
        await lookAt(tab, 'dashboard', browserName);
        await tab.press('month');
        await awaitThat('the counts of the month', async () => /Last 30 days: 1 opened, 0 warned of, 3 blocked\./.test(await tab.text()));
    });

    test('keeps no address of a page, and of an opened page not even the site', async () => {
        await changeUntil(here, ['list', 'block', 'bets.example'], 'http://bets.example/', 'blocked');
        const open = await here.browser.open('http://free.example/private');
        await open.awaitPage('http://free.example/private');
        const tab = await openDashboard('http://bets.example/secret?word');
        const kept = String(await tab.ask(`import('../background/History.js').then(({ History }) => new History().read()).then(JSON.stringify)`));
        assert.match(kept, /bets\.example/);
        assert.doesNotMatch(kept, /secret|word|free\.example|private/);
    });
});
