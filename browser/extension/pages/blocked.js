// In the place of a page that is blocked: why it is, and by what; and a way to ask an administrator for it.
//
// What came of asking is looked at when the page is shown, when it is come back to, and when the hub says that requests have changed.
// A grant needs no look: it changes the settings, and the page is freed as by any other change.
// @ts-check

import { ask, byId, dateText, factsOf, fillTexts, keepShowing, leave, pageAddress, reason, showFacts, text } from './common.js';

/** @typedef {import('./common.js').PageAnswer} PageAnswer */
/** @typedef {import('../background/messages.js').Requested} Requested */

/** @param {PageAnswer} answer */
function show({ decision, state }) {
    if (decision.action === 'wait') {
        return; // what was said stays until something is known again
    }
    const isFreed = decision.action !== 'block';
    document.body.classList.toggle('freed', isFreed);
    byId('open').hidden = !isFreed;
    byId('request').hidden = isFreed;
    byId('title').textContent = text(isFreed ? 'freedTitle' : 'blockedTitle');
    byId('lead').textContent = text(isFreed ? 'freedLead' : 'blockedLead');
    byId('why').textContent = isFreed ? '' : reason(decision);
    byId('address').textContent = decision.url;
    showFacts(isFreed ? [] : factsOf(decision, state));
}

/** @param {NonNullable<Requested['last']>} last */
function lastText({ number, state, asked, answered, answer, until }) {
    switch (state) {
        case 'open':
            return text('lastOpen', String(number), dateText(asked));
        case 'denied':
            return answer ? text('lastDenied', String(number), dateText(answered), answer)
                : text('lastDeniedOnly', String(number), dateText(answered));
        default:
            return until ? text('lastGranted', String(number), dateText(until)) : text('lastGrantedForGood', String(number));
    }
}

/** Our sentence has the stop. @param {string} because */
const withoutStop = (because) => because.replace(/\.$/, '');

/** What came of asking, in sentences. @param {Requested} requested */
function requestedTexts({ outcome, url, number, because, last }) {
    const before = last && last.state !== 'open' ? [lastText(last)] : [];
    switch (outcome) {
        case 'asked':
            return [text('askedFor', url, String(number)), ...before];
        case 'known':
            return [text('askedKnown', String(number))];
        case 'told':
            return last ? [lastText(last)] : [];
        case 'refused':
            return [text('askRefused', withoutStop(because))];
        default:
            return [text('askAway', withoutStop(because))];
    }
}

/** @param {Requested | undefined} requested */
function showRequested(requested) {
    const came = requested ? requestedTexts(requested) : [text('askAway', text('noReasonYet'))];
    byId('came').textContent = came.join(' ');
    byId('ask').textContent = text(requested?.last?.state === 'denied' && requested.number === 0 ? 'askAgain' : 'askAccess');
}

/** The request that this page has made or was told of. The hub's word that it was made is no news then. */
let asked = 0;

async function request() {
    const button = /** @type {HTMLButtonElement} */ (byId('ask'));
    const field = /** @type {HTMLTextAreaElement} */ (byId('reason'));
    if (button.getAttribute('aria-disabled') === 'true') {
        return; // the one before has no answer yet; a disabled button would lose the focus
    }
    button.setAttribute('aria-disabled', 'true');
    const requested = await ask({ ask: 'request', url: pageAddress, reason: field.value.replace(/\s+/g, ' ').trim() }).catch(() => undefined);
    asked = requested?.number ?? 0;
    showRequested(requested);
    button.removeAttribute('aria-disabled');
}

/** Says nothing of a host that is away: nobody has asked for anything yet. */
async function look() {
    const requested = await ask({ ask: 'requests', url: pageAddress }).catch(() => undefined);
    const isNews = requested?.last?.state !== 'open' || requested.number !== asked;
    if (requested?.outcome === 'told' && isNews) {
        showRequested(requested);
    }
}

fillTexts();
byId('back').addEventListener('click', leave);
byId('open').addEventListener('click', () => location.replace(pageAddress));
byId('request').addEventListener('submit', (event) => {
    event.preventDefault();
    request();
});
const lookIfSeen = () => document.hidden || look();
document.addEventListener('visibilitychange', lookIfSeen);
chrome.runtime.onMessage.addListener((message) => {
    if (message.tell === 'requests') {
        lookIfSeen();
    }
});
keepShowing({ ask: 'page', url: pageAddress }, show);
look();
