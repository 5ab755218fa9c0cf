// The parts of the background by themselves, in node: what they do when events of the browser and of the host overlap, which in a
// real browser comes about once in a thousand pages.
// @ts-check

import assert from 'node:assert/strict';
import { describe, test } from 'node:test';
import { within } from './support/deadline.mjs';
import { extensionModule, standIn } from './support/extensionModules.mjs';

/** Until everything that can go on has gone on. */
const settled = () => new Promise((done) => setImmediate(done));

/** A browser's filters; each call takes a turn, and an id that is taken is refused, as Chromium does it. */
class FilterKeeper {
    /** @type {any[]} */
    rules = [];

    async getDynamicRules() {
        await settled();
        return [...this.rules];
    }

    /** @param {{ removeRuleIds: number[], addRules: any[] }} change */
    async updateDynamicRules({ removeRuleIds, addRules }) {
        await settled();
        const kept = this.rules.filter((rule) => !removeRuleIds.includes(rule.id));
        if (addRules.some((rule) => kept.some((other) => other.id === rule.id))) {
            throw new Error('Rule does not have a unique ID.');
        }
        this.rules = [...kept, ...addRules];
    }
}

/** Settings that block these. @param {string[]} hosts */
function blocking(...hosts) {
    return { protecting: true, allowsFirst: false, entries: hosts.map((host) => [false, host, '', host, false, 0, '']) };
}

describe('The filters', async () => {
    const { filtersOf, giveAhead } = await extensionModule('background/RulesAhead.js');

    test('are those of the later list when two lists come at once', async () => {
        const keeper = new FilterKeeper();
        standIn({ declarativeNetRequest: keeper });
        const later = blocking('b.example', 'c.example');
        await within('both lists', Promise.all([giveAhead(blocking('a.example')), giveAhead(later)]));
        assert.deepEqual(keeper.rules, filtersOf(later));
    });

    test('are those of the next list after one that the browser refused', async () => {
        const keeper = new FilterKeeper();
        standIn({ declarativeNetRequest: keeper });
        keeper.updateDynamicRules = () => Promise.reject(new Error('no'));
        await assert.rejects(giveAhead(blocking('a.example')));
        keeper.updateDynamicRules = FilterKeeper.prototype.updateDynamicRules;
        const later = blocking('b.example');
        await within('the next list', giveAhead(later));
        assert.deepEqual(keeper.rules, filtersOf(later));
    });
});

describe('The gate', async () => {
    const { Gate } = await extensionModule('background/Gate.js');

    /** A gate, and where it sent tabs. */
    function gateAndSent() {
        /** @type {string[]} */
        const sent = [];
        standIn({
            runtime: { getURL: (/** @type {string} */ page) => page },
            tabs: { update: async (/** @type {number} */ _tab, /** @type {{ url: string }} */ { url }) => sent.push(url) },
        });
        const gate = new Gate({ loaded: Promise.resolve(), has: () => false }, () => undefined, () => undefined);
        return { gate, sent };
    }

    /** A look at a page that is to be blocked, and the end of its decision. @param {any} gate @param {string} url */
    function slowLook(gate, url) {
        /** @type {() => void} */
        let decided = () => undefined;
        const look = gate.lookAgain(1, url, () => new Promise((done) => (decided = () => done({ action: 'block', url }))));
        return { decide: () => (decided(), look) };
    }

    test('leaves a tab alone that has gone elsewhere while it was decided', async () => {
        const { gate, sent } = gateAndSent();
        gate.shows(1, 'http://blocked.example/');
        const look = slowLook(gate, 'http://blocked.example/');
        gate.shows(1, 'http://open.example/');
        await look.decide();
        assert.deepEqual(sent, []);
    });

    test('sends a tab away that still shows what was decided', async () => {
        const { gate, sent } = gateAndSent();
        gate.shows(1, 'http://blocked.example/');
        await slowLook(gate, 'http://blocked.example/').decide();
        assert.equal(sent.length, 1);
    });

    test('sends a tab away that has come to what was decided meanwhile', async () => {
        const { gate, sent } = gateAndSent();
        gate.shows(1, 'http://open.example/');
        const look = slowLook(gate, 'http://blocked.example/');
        gate.shows(1, 'http://blocked.example/');
        await look.decide();
        assert.equal(sent.length, 1);
    });
});

describe('The link to the host', async () => {
    const { HostLink } = await extensionModule('background/HostLink.js');

    /** A port whose other end is the test. */
    function port() {
        /** @type {((message: any) => void)[]} */
        const onMessage = [];
        /** @type {(() => void)[]} */
        const onDisconnect = [];
        return {
            onMessage: { addListener: (/** @type {any} */ listener) => onMessage.push(listener) },
            onDisconnect: { addListener: (/** @type {any} */ listener) => onDisconnect.push(listener) },
            postMessage: () => undefined,
            disconnect: () => undefined,
            error: /** @type {Error | undefined} */ (undefined),
            /** @param {any} message */
            say: (message) => onMessage.forEach((listener) => listener(message)),
            /** @param {string} [why] */
            end(why) {
                this.error = why === undefined ? undefined : new Error(why);
                onDisconnect.forEach((listener) => listener());
            },
        };
    }

    /** A link, and each port that it made. */
    function linkAndPorts() {
        /** @type {ReturnType<typeof port>[]} */
        const ports = [];
        standIn({ runtime: { connectNative: () => (ports.push(port()), ports[ports.length - 1]), lastError: undefined } });
        const link = new HostLink('firefox', false, { settings() {}, ratings() {}, changed() {}, requests() {} });
        link.connect();
        return { link, ports };
    }

    test('tells why it failed last, not first', async () => {
        const { link, ports } = linkAndPorts();
        ports[0].end('the host is not installed');
        assert.equal(link.because, 'the host is not installed');
        link.connect();
        ports[1].say({ type: 'error', text: 'a version that is not known' });
        assert.equal(link.because, 'a version that is not known');
        link.connect();
        ports[2].end();
        assert.equal(link.because, 'the host ended');
    });

    test('tells nothing after a welcome', async () => {
        const { link, ports } = linkAndPorts();
        ports[0].end('the host is not installed');
        link.connect();
        ports[1].say({ type: 'welcome' });
        assert.equal(link.because, '');
    });
});

describe('Those who wait for the host', async () => {
    const { Waiters } = await extensionModule('background/Waiters.js');

    test('are forgotten when their time is over', async () => {
        const waiters = new Waiters();
        const waits = Array.from({ length: 1000 }, () => waiters.wait(1));
        assert.equal(waiters.size, 1000);
        await within('their time', Promise.all(waits));
        assert.equal(waiters.size, 0);
    });

    test('go on as soon as they are woken', async () => {
        const waiters = new Waiters();
        const wait = waiters.wait(3600 * 1000);
        waiters.wakeAll();
        await within('the one who waits', wait);
        assert.equal(waiters.size, 0);
    });
});
