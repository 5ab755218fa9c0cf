// Our own pages: what they say, in light and dark, by keyboard and to a screen reader; and that no site can reach them.
// @ts-check

import assert from 'node:assert/strict';
import { test } from 'node:test';
import { awaitThat } from './support/deadline.mjs';
import { lookAt } from './support/looks.mjs';
import { changeUntil, inEachBrowser, visit } from './support/suite.mjs';

inEachBrowser('Our pages', (here, browserName) => {
    const status = async () => {
        const tab = await here.browser.open('http://blocked.example/');
        await tab.awaitOwnPage('blocked');
        await tab.ask("void (location.href = 'status.html')"); // a driver may not go there, the page may
        await tab.awaitOwnPage('status');
        return tab;
    };

    test('the page of a block says why, by which entry, since when and by whom', async () => {
        await changeUntil(here, ['list', 'block', 'games.example/play', 'blocked.example'], 'http://blocked.example/', 'blocked');
        const tab = await here.browser.open('http://games.example/play/online?level=3');
        await tab.awaitOwnPage('blocked');
        const text = await tab.text();
        assert.match(text, /Entry\n+games\.example\/play \(number 1 of the list\)/);
        assert.match(text, /Rating\n+not rated/);
        assert.match(text, /Set by\n+this machine's own settings|Set by\n+not known to this user/);
        assert.match(text, new RegExp(`Settings as of\\n+.*${new Date().getFullYear()}`));
        await lookAt(tab, 'blocked', browserName);
    });

    test('the page of a warning has its two answers within reach of the keyboard, the safe one first', async () => {
        await changeUntil(here, ['prefs', 'set', 'unrated-sites', 'warn'], 'http://settled.example/', 'warning');
        const tab = await here.browser.open('http://doubtful.example/offer');
        await tab.awaitOwnPage('warning');
        await lookAt(tab, 'warning', browserName);
        await tab.page.keyboard.press('Tab');
        assert.equal(await tab.ask('document.activeElement.id'), 'turn-back');
        await tab.page.keyboard.press('Tab');
        assert.equal(await tab.ask('document.activeElement.id'), 'go-on');
        await tab.page.keyboard.press('Enter');
        await tab.awaitPage('http://doubtful.example/offer');
    });

    test('the status page says what is in force and where it came from', async () => {
        await changeUntil(here, ['list', 'block', 'blocked.example', 'second.example'], 'http://blocked.example/', 'blocked');
        const tab = await status();
        const text = await tab.text();
        assert.match(text, /Sentrel: pages are decided/);
        assert.match(text, /Connection\n+connected/);
        assert.match(text, /Pages\n+are decided before they are opened/);
        assert.match(text, /Settings\n+as the machine has them now/);
        assert.match(text, /Protection\n+on/);
        assert.match(text, /Entries in the list\n+2/);
        await lookAt(tab, 'status', browserName);
    });

    test('the status page follows protection, and a hub that goes away', async () => {
        await changeUntil(here, ['list', 'block', 'blocked.example'], 'http://blocked.example/', 'blocked');
        const tab = await status();
        here.machine.ctl('prefs', 'set', 'protection', 'off');
        await awaitThat('protection to be off', async () => /Protection\n+off/.test(await tab.text()));
        here.machine.ctl('prefs', 'set', 'protection', 'on');
        await awaitThat('protection to be on', async () => /Protection\n+on/.test(await tab.text()));
        await here.machine.kill9('hub');
        await awaitThat('the hub to be missed', async () => /Settings\n+the last whole ones: \S/.test(await tab.text()));
        here.machine.start('hub');
        await awaitThat('the hub to be back', async () => /Settings\n+as the machine has them now/.test(await tab.text()), 20000);
    });

    test('no site can show one, load a part of it or find it', async () => {
        await changeUntil(here, ['list', 'block', 'blocked.example'], 'http://blocked.example/', 'blocked');
        const own = await here.browser.open('http://blocked.example/');
        await own.awaitOwnPage('blocked');
        const origin = await own.ask('location.origin');
        here.site.page('curious.example/', `<script>
            window.found = [];
            const look = (kind, made) => new Promise((done) => {
                made.onload = () => { found.push(kind); done(); };
                made.onerror = done;
                document.documentElement.append(made);
            });
            const make = (name, where) => Object.assign(document.createElement(name), where);
            window.looked = Promise.all([
                look('picture', make('img', { src: '${origin}/icons/sentrel-48.png' })),
                look('style', make('link', { rel: 'stylesheet', href: '${origin}/pages/page.css' })),
                look('script', make('script', { type: 'module', src: '${origin}/pages/common.js' })),
                fetch('${origin}/manifest.json').then(() => found.push('file'), () => undefined),
            ]).then(() => { window.done = true; });
            document.documentElement.append(make('iframe', { src: '${origin}/pages/blocked.html' }));
        </script>`);
        const tab = await here.browser.tab();
        await visit(tab, 'http://curious.example/');
        await awaitThat('its attempts to end', () => tab.ask('window.done'));
        assert.deepEqual(await tab.ask('window.found'), []);
        await tab.ask(`void (location.href = '${origin}/pages/warning.html?url=http://curious.example/')`);
        await tab.go('about:blank');
        assert.equal(await visit(tab, 'http://curious.example/'), 'open');
    });
});
