// Where the browser comes in: its events to the gate, the host's settings to those who want them, the questions of our own pages.
//
// Firefox holds a request until a promise is kept, so each page is asked of the host. Chromium wants the answer at once and gives
// it a say only when the extension came by policy; there the rules in memory decide, which are the host's too. Both browsers stop
// this program when nothing happens and start it again for an event, so every listener is added before anything is waited for.
// @ts-check

import { showOnButton } from './Button.js';
import { Gate } from './Gate.js';
import { History } from './History.js';
import { HostLink } from './HostLink.js';
import { KeptRules } from './KeptRules.js';
import { giveAhead } from './RulesAhead.js';
import { Waiters } from './Waiters.js';
import { WarnedSites } from './WarnedSites.js';

/** @typedef {import('./messages.js').HostDecision} HostDecision */
/** @typedef {import('./messages.js').PageQuestion} PageQuestion */
/** @typedef {import('./messages.js').Settings} Settings */
/** @typedef {import('./messages.js').State} State */

const isFirefox = 'getBrowserInfo' in chrome.runtime;
/** How long a page is held without anything on the screen, while the host starts or comes back. */
const pageDeadline = 700; // ms
/** A frame has no page of ours to show: it is held for longer, then cancelled. */
const frameDeadline = 10000; // ms
/** Also what an object element shows is a page. @type {`${chrome.webRequest.ResourceType}`[]} */
const frames = ['main_frame', 'sub_frame', 'object'];
const theWeb = ['http://*/*', 'https://*/*'];

/** @type {Settings | null} */
let settings = null;
const waiters = new Waiters();
/** Whether this browser lets pages be held back. Chromium does so only for an extension that came by policy. */
let holds = true;
/** Neither browser does so on its own. A change of it starts this program anew. */
let inPrivate = false;
const kept = new KeptRules();
const warned = new WarnedSites();
const link = new HostLink(isFirefox ? 'firefox' : 'chromium', !isFirefox, {
    settings: takeSettings, ratings: takeRatings, changed: stateChanged, requests: () => tellPages('requests'),
});
const history = new History();
const gate = new Gate(warned, (url, answer) => link.report(url, answer).catch(() => undefined), note);

/** @param {Settings} arrived */
function takeSettings(arrived) {
    if (!isFirefox) {
        kept.take(arrived);
    }
    const { rules, ...rest } = arrived;
    settings = rest;
    if (rules && !holds) {
        giveAhead(rules);
    }
    decideAnew();
}

/** @param {import('../decision/Ratings.js').RatingsMessage} arrived */
function takeRatings(arrived) {
    kept.takeRatings(arrived);
    decideAnew();
}

/** What decides is another. */
function decideAnew() {
    gate.forgetAll();
    waiters.wakeAll();
    stateChanged();
}

/** @returns {State} */
function state() {
    return { connected: link.connected, because: link.because, holds, inPrivate, settings };
}

/** For the dashboard; a page in a private window is nobody's business. @param {HostDecision} decision @param {number} tab */
function note(decision, tab) {
    chrome.tabs.get(tab).then((shown) => (shown.incognito ? undefined : history.add(decision))).catch(() => undefined);
}

function stateChanged() {
    showOnButton(state());
    tellPages('changed');
}

/** @param {'changed' | 'requests'} tell */
function tellPages(tell) {
    chrome.runtime.sendMessage({ tell }).catch(() => undefined); // no page of ours is open
}

/** @param {string} url @param {'main' | 'sub'} frame @param {number} milliseconds @returns {Promise<HostDecision>} */
function askHost(url, frame, milliseconds) {
    return link.decide(url, frame, milliseconds).then(
        (answer) => ('action' in answer ? answer : { action: 'wait', url }),
        () => ({ action: 'wait', url }),
    );
}

/** Asks again with each change of the settings, until there is a decision or the time is over.
 * @param {string} url @param {'main' | 'sub'} frame @returns {Promise<HostDecision>} */
async function decisionInTime(url, frame) {
    const end = performance.now() + (frame === 'main' ? pageDeadline : frameDeadline);
    for (;;) {
        const decision = await askHost(url, frame, end - performance.now());
        const left = end - performance.now();
        if (decision.action !== 'wait' || left <= 0) {
            return decision;
        }
        await waiters.wait(left);
    }
}

/** @param {string} url @returns {HostDecision | Promise<HostDecision>} */
function decidePage(url) {
    return isFirefox ? decisionInTime(url, 'main') : kept.decide(url);
}

chrome.webRequest.onBeforeRequest.addListener(
    (request) => {
        if (!isFirefox) {
            return gate.act(request, kept.decide(request.url));
        }
        const decided = decisionInTime(request.url, request.type === 'main_frame' ? 'main' : 'sub');
        // Firefox keeps the request until this is kept; the types are those of the other browser.
        return /** @type {any} */ (decided.then((decision) => warned.loaded.then(() => gate.act(request, decision))));
    },
    { urls: theWeb, types: frames },
    ['blocking'],
);

/** @typedef {{ frameId: number, tabId: number, url: string, documentLifecycle?: string }} Navigation */

/** @param {Navigation} navigation */
function isShown({ frameId, tabId, documentLifecycle }) {
    return frameId === 0 && tabId >= 0 && documentLifecycle !== 'prerender';
}

/** @param {Navigation} navigation */
function arrived(navigation) {
    if (isShown(navigation)) {
        gate.shows(navigation.tabId, navigation.url);
        gate.lookAgain(navigation.tabId, navigation.url, decidePage);
    }
}
chrome.webNavigation.onCommitted.addListener(arrived);
// These see to what was not held back: pages before their first byte, and frames that the browser refused by the rules it was given.
chrome.webNavigation.onBeforeNavigate.addListener((navigation) => {
    if (!holds) {
        gate.leaves(navigation.tabId);
        if (isShown(navigation)) {
            gate.lookAgain(navigation.tabId, navigation.url, decidePage);
        }
    }
});
chrome.webRequest.onErrorOccurred.addListener(
    ({ url, type, error }) => {
        if (!holds && type !== 'main_frame' && error === 'net::ERR_BLOCKED_BY_CLIENT') {
            link.report(url, 'none').catch(() => undefined);
        }
    },
    { urls: theWeb, types: frames },
);
chrome.webNavigation.onHistoryStateUpdated.addListener(arrived);
chrome.tabs.onRemoved.addListener((tab) => gate.forget(tab));

/** @param {PageQuestion} question @returns {Promise<any>} */
async function answer(question) {
    switch (question.ask) {
        case 'page': {
            const told = await askHost(question.url, 'main', pageDeadline);
            const decision = told.action === 'wait' && !isFirefox ? kept.decide(question.url) : told;
            return { state: state(), decision };
        }
        case 'answer':
            if (question.answer === 'went-on') {
                await warned.add(question.url);
            }
            link.report(question.url, question.answer).catch(() => undefined);
            return {};
        case 'request':
            return link.requestAccess({ type: 'request', url: question.url, reason: question.reason });
        case 'requests':
            return link.requestAccess({ type: 'requests', url: question.url });
        default:
            return { state: state() };
    }
}

chrome.runtime.onMessage.addListener((question, sender, reply) => {
    if (sender.id !== chrome.runtime.id || !question.ask) {
        return false;
    }
    answer(question).then(reply);
    return true; // the answer comes later
});

async function start() {
    holds = isFirefox || ((await chrome.permissions.getAll()).permissions ?? []).includes('webRequestBlocking');
    stateChanged();
    link.connect();
    chrome.extension.isAllowedIncognitoAccess().then((isAllowed) => {
        inPrivate = isAllowed;
        stateChanged();
    });
    if (!isFirefox) {
        const before = await kept.load();
        if (before !== null) {
            takeSettings({ ...before, state: 'kept', because: '' });
        }
    }
    for (const tab of await chrome.tabs.query({})) {
        if (tab.id !== undefined && tab.url) {
            gate.shows(tab.id, tab.url);
            gate.lookAgain(tab.id, tab.url, decidePage);
        }
    }
}
// An installation or a start of the browser starts this program; whatever it shows already is looked at.
chrome.runtime.onInstalled.addListener(() => undefined);
chrome.runtime.onStartup.addListener(() => undefined);
start();
