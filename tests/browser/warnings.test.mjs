// Pages that are warned of: the user answers, the answer holds for the site and is reported.
// @ts-check

import assert from 'node:assert/strict';
import { beforeEach, test } from 'node:test';
import { awaitThat } from './support/deadline.mjs';
import { changeUntil, inEachBrowser, visit } from './support/suite.mjs';

inEachBrowser('Warnings', (here, browserName) => {
    beforeEach(async () => {
        await changeUntil(here, ['list', 'allow', 'plain.example'], 'http://plain.example/', 'open');
        await changeUntil(here, ['prefs', 'set', 'unrated-sites', 'warn'], 'http://settled.example/', 'warning');
    });

    /** @param {string} url @param {string} action */
    const awaitReport = (url, action) => awaitThat(`the report of ${url}`, () => {
        const report = here.machine.log().find((one) => one.url === url);
        if (!report) {
            return false;
        }
        const shown = here.machine.ctl('log', '--id', String(report.id));
        assert.match(shown, new RegExp(`Browser +${browserName}\\n`));
        assert.match(shown, new RegExp(`Action +${action}\\n`));
        return true;
    });

    test('a page that is warned of is not fetched, and nothing is reported before the answer', async () => {
        const tab = await here.browser.open('http://unanswered.example/');
        await tab.awaitOwnPage('warning');
        assert.match(await tab.text(), /Sites with this rating are warned of/);
        assert.match(await tab.text(), /UnverifiedSiteAction/);
        assert.ok(!here.site.wasAsked('unanswered.example'));
        assert.ok(!here.machine.hasReported('http://unanswered.example/'));
    });

    test('who goes on comes to the page, is not asked again for that site, and it is reported', async () => {
        const tab = await here.browser.open('http://risky.example/first');
        await tab.awaitOwnPage('warning');
        await tab.press('go-on');
        await tab.awaitPage('http://risky.example/first');
        await awaitReport('http://risky.example/first', '.*\\(5\\)');
        assert.equal(await visit(tab, 'http://risky.example/second'), 'open');
        assert.equal(await visit(tab, 'http://other.example/'), 'warning');
    });

    test('who turns back comes to where he was, and it is reported', async () => {
        const tab = await here.browser.open('http://plain.example/');
        await tab.awaitPage('http://plain.example/');
        await tab.go('http://left.example/');
        await tab.awaitOwnPage('warning');
        await tab.press('turn-back');
        await tab.awaitPage('http://plain.example/');
        await awaitReport('http://left.example/', '.*\\(6\\)');
        assert.ok(!here.site.wasAsked('left.example'));
    });

    test('a frame of a site that is warned of stays empty until the user has gone on to that site', async () => {
        here.site.page('plain.example/frames', '<p>around</p><iframe src="http://framed.example/inner"></iframe>');
        const tab = await here.browser.open('http://plain.example/frames');
        await tab.awaitPage('http://plain.example/frames');
        await visit(tab, 'http://framed.example/');
        await tab.awaitOwnPage('warning');
        assert.ok(!here.site.wasAsked('framed.example/inner'));
        await tab.press('go-on');
        await tab.awaitPage('http://framed.example/');
        await tab.go('http://plain.example/frames');
        await awaitThat('the frame to be fetched', () => here.site.wasAsked('framed.example/inner'));
    });

    test('a page that is no longer warned of opens by itself', async () => {
        const tab = await here.browser.open('http://freed.example/');
        await tab.awaitOwnPage('warning');
        here.machine.ctl('prefs', 'set', 'unrated-sites', 'allow');
        await tab.awaitPage('http://freed.example/');
    });

    test('a rating that is blocked says so', async () => {
        await changeUntil(here, ['prefs', 'set', 'unrated-sites', 'block'], 'http://settled.example/', 'blocked');
        const tab = await here.browser.open('http://unrated.example/');
        await tab.awaitOwnPage('blocked');
        assert.match(await tab.text(), /Sites with this rating are blocked/);
        await awaitReport('http://unrated.example/', 'blocked \\(4\\)');
    });
});
