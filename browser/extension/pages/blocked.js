// In the place of a page that is blocked: why it is, and by what.
// @ts-check

import { byId, factsOf, fillTexts, keepShowing, leave, pageAddress, reason, showFacts, text } from './common.js';

/** @typedef {import('./common.js').PageAnswer} PageAnswer */

/** @param {PageAnswer} answer */
function show({ decision, state }) {
    if (decision.action === 'wait') {
        return; // what was said stays until something is known again
    }
    const isFreed = decision.action !== 'block';
    document.body.classList.toggle('freed', isFreed);
    byId('open').hidden = !isFreed;
    byId('title').textContent = text(isFreed ? 'freedTitle' : 'blockedTitle');
    byId('lead').textContent = text(isFreed ? 'freedLead' : 'blockedLead');
    byId('why').textContent = isFreed ? '' : reason(decision);
    byId('address').textContent = decision.url;
    showFacts(isFreed ? [] : factsOf(decision, state));
}

fillTexts();
byId('back').addEventListener('click', leave);
byId('open').addEventListener('click', () => location.replace(pageAddress));
keepShowing({ ask: 'page', url: pageAddress }, show);
