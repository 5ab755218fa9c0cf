// Chromium ends the extension's program when it likes, and starts it for an event: what was blocked is blocked in between too.
// @ts-check

import assert from 'node:assert/strict';
import fs from 'node:fs';
import { test } from 'node:test';
import { awaitThat, within } from './support/deadline.mjs';
import { changeUntil, inEachBrowser, outcomeOf, visit } from './support/suite.mjs';

inEachBrowser('The end of the service worker', (here) => {
    const isWorker = (/** @type {import('puppeteer-core').Target} */ target) => target.type() === 'service_worker' && target.url().endsWith('/background/main.js');
    /** Ends it, as Chromium does, and waits until it is gone. */
    const endWorker = async () => {
        const target = await within('the worker', here.browser.tabs.waitForTarget(isWorker));
        const gone = new Promise((done) => here.browser.tabs.on('targetdestroyed', (ended) => ended === target && done(true)));
        const worker = await within('the worker', target.worker());
        await within('the worker to be told', /** @type {import('puppeteer-core').WebWorker} */ (worker).close());
        await within('the worker to end', gone);
    };
    /** A page may wait while the worker starts, and then goes on by itself. @param {import('./support/Browser.mjs').Tab} tab
     * @param {string} address @param {'blocked' | 'open'} end */
    const endsAs = async (tab, address, end) => {
        const seen = [await visit(tab, address)];
        await awaitThat(`${address} to be ${end}`, async () => {
            seen.push(await outcomeOf(tab) ?? seen[0]);
            return seen.at(-1) === end;
        });
        assert.deepEqual(seen.filter((outcome) => outcome && outcome !== 'waiting' && outcome !== end), []);
    };
    const block = () => changeUntil(here, ['list', 'block', 'blocked.example'], 'http://blocked.example/', 'blocked');

    test('lets nothing through: the next page is decided, again and again', async () => {
        await block();
        const tab = await here.browser.tab();
        for (let round = 0; round < 5; ++round) {
            await endWorker();
            await endsAs(tab, `http://blocked.example/${round}`, 'blocked');
        }
        await endsAs(tab, 'http://free.example/', 'open');
        assert.ok(!here.site.wasAsked('blocked.example'));
        await awaitThat('a report', () => here.machine.hasReported('http://blocked.example/4'));
    });

    test('lets nothing through without hub and host: what was kept decides', async () => {
        await block();
        const program = `${here.machine.root}/usr/local/Orvanta/Sentrel/browser/sentrel-browser-host`;
        await here.machine.kill9('hub');
        fs.renameSync(program, `${program}.away`);
        try {
            for (const pid of here.machine.hostProcesses()) {
                process.kill(pid, 'SIGKILL');
            }
            await awaitThat('no host', () => here.machine.hostProcesses().length === 0);
            await endWorker();
            const tab = await here.browser.tab();
            await endsAs(tab, 'http://blocked.example/kept', 'blocked');
            await endsAs(tab, 'http://free.example/kept', 'open');
            assert.ok(!here.site.wasAsked('blocked.example'));
        } finally {
            fs.renameSync(`${program}.away`, program);
            here.machine.start('hub');
            await awaitThat('the hub', () => here.machine.tryCtl(['hub', 'ping']).status === 0);
        }
        await changeUntil(here, ['list', 'remove', 'blocked.example'], 'http://blocked.example/', 'open');
    });
}, { only: 'chromium' });
