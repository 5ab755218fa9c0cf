// Asking for access: a user asks on the page of a block, an administrator answers with sentrelctl, and the page tells.
// @ts-check

import assert from 'node:assert/strict';
import { test } from 'node:test';
import { awaitThat } from './support/deadline.mjs';
import { browserUser } from './support/Machine.mjs';
import { changeUntil, inEachBrowser } from './support/suite.mjs';

/** @typedef {import('./support/Browser.mjs').Tab} Tab */

inEachBrowser('Requests for access', (here) => {
    /** @param {string} address @returns {Promise<Tab>} our page in its place */
    const openBlocked = async (address) => {
        const tab = await here.browser.open(address);
        await tab.awaitOwnPage('blocked');
        return tab;
    };
    /** @param {string[]} hosts */
    const block = (...hosts) => changeUntil(here, ['list', 'block', ...hosts], `http://${hosts[0]}/`, 'blocked');
    /** @param {Tab} tab @param {RegExp} words */
    const awaitWords = (tab, words) => awaitThat(`${words} on the page`, async () => words.exec(await tab.ask("document.getElementById('came').innerText") ?? ''));
    /** @param {string} url */
    const requestFor = (url) => {
        const found = JSON.parse(here.machine.ctl('requests', 'list', '--json=short')).find((/** @type {any} */ each) => each.url === url);
        assert.ok(found, `a request for ${url}`);
        return found;
    };
    /** Asks, and waits until it has been asked. @param {Tab} tab */
    const ask = async (tab) => {
        await tab.press('ask');
        await awaitWords(tab, /is asked for/);
    };

    test('one is made by keyboard, and the administrator sees who asks for what and why', async () => {
        await block('wanted.example');
        const tab = await openBlocked('http://wanted.example/page?x=1');
        await tab.page.bringToFront();
        for (const id of ['back', 'reason']) {
            await tab.page.keyboard.press('Tab');
            assert.equal(await tab.ask('document.activeElement.id'), id);
        }
        await tab.page.keyboard.type('For my work');
        await tab.page.keyboard.press('Tab');
        assert.equal(await tab.ask('document.activeElement.id'), 'ask');
        await tab.page.keyboard.press('Enter');
        await awaitWords(tab, /Access to http:\/\/wanted\.example\/page\?x=1 is asked for \(request \d+\)/);
        const { user, reason, state } = requestFor('http://wanted.example/page?x=1');
        assert.deepEqual({ user, reason, state }, { user: browserUser, reason: 'For my work', state: 'open' });
    });

    test('one that is open is known when the page is opened again or asked for again', async () => {
        await block('patient.example');
        await ask(await openBlocked('http://patient.example/'));
        const { id } = requestFor('http://patient.example/');
        const again = await openBlocked('http://patient.example/');
        await awaitWords(again, new RegExp(`Your request ${id} of .* is not answered yet`));
        await again.press('ask');
        await awaitWords(again, new RegExp(`asked for already \\(request ${id}\\)`));
    });

    test('a granted one opens the page within a second, and no other site', async () => {
        await block('granted.example', 'neighbour.example');
        const tab = await openBlocked('http://granted.example/a');
        await ask(tab);
        here.machine.ctl('requests', 'grant', String(requestFor('http://granted.example/a').id), '--for', '1h');
        await awaitThat('our page to say that it is allowed now', async () => /allowed now/.test(await tab.text()), 1000);
        assert.equal(await tab.ask("document.getElementById('request').hidden"), true);
        await tab.press('open');
        await tab.awaitPage('http://granted.example/a');
        await openBlocked('http://neighbour.example/');
    });

    test('a denied one is told with its reason, and can be asked for again', async () => {
        await block('denied.example');
        const first = await openBlocked('http://denied.example/');
        await ask(first);
        here.machine.ctl('requests', 'deny', String(requestFor('http://denied.example/').id), '--reason', 'not in the office');
        const tab = await openBlocked('http://denied.example/');
        await awaitWords(tab, /Your request \d+ was denied on .*: not in the office/);
        assert.equal(await tab.ask("document.getElementById('ask').innerText"), 'Ask again');
        await tab.press('ask');
        await awaitWords(tab, /is asked for \(request \d+\).*was denied on .*: not in the office/);
    });

    test('a denial is told by the page that is open, within a second', async () => {
        await block('open.example');
        const tab = await openBlocked('http://open.example/');
        await tab.page.bringToFront();
        await ask(tab);
        await awaitWords(tab, /is asked for \(request \d+\)/);
        here.machine.ctl('requests', 'deny', String(requestFor('http://open.example/').id), '--reason', 'ask your teacher');
        await awaitThat('the page to say it', async () => /was denied on .*: ask your teacher/.test(await tab.text()), 1000);
        assert.equal(await tab.ask("document.getElementById('ask').innerText"), 'Ask again');
    });

    test('one for a page that a rating blocks is made and granted too', async () => {
        await changeUntil(here, ['prefs', 'set', 'unrated-sites', 'block'], 'http://unrated.example/', 'blocked');
        const tab = await openBlocked('http://unrated.example/');
        await ask(tab);
        here.machine.ctl('requests', 'grant', String(requestFor('http://unrated.example/').id), '--for', '1h');
        await awaitThat('our page to say that it is allowed now', async () => /allowed now/.test(await tab.text()), 1000);
    });

    test('one cannot be made while the hub is away, and the page says so', async () => {
        await block('lonely.example');
        const tab = await openBlocked('http://lonely.example/');
        await here.machine.kill9('hub');
        await tab.press('ask');
        await awaitWords(tab, /Nobody can be asked at the moment: \S/);
        here.machine.start('hub');
        await awaitThat('the hub to be back', () => here.machine.tryCtl(['hub', 'ping']).status === 0);
        await ask(tab);
    });
});
