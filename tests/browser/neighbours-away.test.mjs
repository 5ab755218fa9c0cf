// Hub, daemon and host die while somebody browses: what was blocked stays blocked, and all of it comes back by itself.
// @ts-check

import assert from 'node:assert/strict';
import fs from 'node:fs';
import { test } from 'node:test';
import { awaitThat } from './support/deadline.mjs';
import { changeUntil, inEachBrowser, visit } from './support/suite.mjs';

inEachBrowser('Browsing', (here, browserName) => {
    const blockOne = () => changeUntil(here, ['list', 'block', 'blocked.example'], 'http://blocked.example/', 'blocked');

    /** The host's processes that are there now. */
    const hosts = () => here.machine.hostProcesses();

    test('goes on when the host is killed: the next page is decided by a new one', async () => {
        await blockOne();
        const [before] = hosts();
        process.kill(before, 'SIGKILL');
        const tab = await here.browser.tab();
        assert.equal(await visit(tab, 'http://blocked.example/'), 'blocked');
        await awaitThat('the page behind it', async () => (await visit(tab, 'http://free.example/')) === 'open');
        await awaitThat('a new host', () => hosts().some((pid) => pid !== before));
        assert.ok(!here.site.wasAsked('blocked.example'));
    });

    test('goes on when the host is killed again and again', async () => {
        await blockOne();
        const tab = await here.browser.tab();
        for (let round = 0; round < 5; ++round) {
            await awaitThat('a host', () => hosts().length > 0);
            process.kill(hosts()[0], 'SIGKILL');
            assert.notEqual(await visit(tab, 'http://blocked.example/'), 'open');
        }
        assert.ok(!here.site.wasAsked('blocked.example'));
        await awaitThat('a free page', async () => (await visit(tab, 'http://free.example/')) === 'open');
    });

    test('goes by the last settings while the hub is away, and by new ones when it is back', async () => {
        await blockOne();
        await here.machine.kill9('hub');
        const tab = await here.browser.tab();
        assert.equal(await visit(tab, 'http://blocked.example/'), 'blocked');
        assert.equal(await visit(tab, 'http://free.example/'), 'open');
        here.machine.start('hub');
        await awaitThat('the hub', () => here.machine.tryCtl(['hub', 'ping']).status === 0);
        await changeUntil(here, ['list', 'remove', 'blocked.example'], 'http://blocked.example/', 'open');
    });

    test('goes on while the daemon is away, and is reported again when it is back', async () => {
        await changeUntil(here, ['list', 'block', 'quiet.example', 'loud.example'], 'http://quiet.example/', 'blocked');
        await here.machine.kill9('daemon');
        const tab = await here.browser.tab();
        assert.equal(await visit(tab, 'http://quiet.example/a'), 'blocked');
        assert.equal(await visit(tab, 'http://free.example/'), 'open');
        here.machine.start('daemon');
        await awaitThat('the daemon', () => here.machine.tryCtl(['hub', 'ping']).status === 0);
        await awaitThat('a report', async () => {
            await visit(tab, 'http://loud.example/b');
            return here.machine.hasReported('http://loud.example/b');
        });
    });

    test('waits for the host while there is none, and goes on by itself when there is', async () => {
        await blockOne();
        const program = `${here.machine.root}/usr/local/Orvanta/Sentrel/browser/sentrel-browser-host`;
        fs.renameSync(program, `${program}.away`);
        try {
            for (const pid of hosts()) {
                process.kill(pid, 'SIGKILL');
            }
            const tab = await here.browser.open('http://patient.example/');
            if (browserName === 'firefox') {
                await tab.awaitOwnPage('waiting');
                assert.match(await tab.text(), /The Sentrel host on this machine is not connected: \S/);
                assert.ok(!here.site.wasAsked('patient.example'));
            }
            const other = await here.browser.tab();
            assert.notEqual(await visit(other, 'http://blocked.example/'), 'open');
        } finally {
            fs.renameSync(`${program}.away`, program);
        }
        await awaitThat('the page', async () => {
            const places = await Promise.all((await here.browser.allTabs()).map((tab) => tab.address()));
            return places.includes('http://patient.example/');
        }, 15000);
        assert.ok(!here.site.wasAsked('blocked.example'));
    });
});
