// In the place of a page that is warned of: the user answers, once for the site, and the answer is reported.
// @ts-check

import { ask, byId, factsOf, fillTexts, keepShowing, leave, pageAddress, reason, showFacts } from './common.js';

/** @typedef {import('./common.js').PageAnswer} PageAnswer */

/** @param {PageAnswer} answer */
function show({ decision, state }) {
    if (decision.action === 'wait') {
        return;
    }
    if (decision.action !== 'warn') {
        location.replace(pageAddress); // the rules have changed: what they say of it now holds
        return;
    }
    byId('why').textContent = reason(decision);
    byId('address').textContent = decision.url;
    showFacts(factsOf(decision, state));
}

fillTexts();
byId('go-on').addEventListener('click', async () => {
    await ask({ ask: 'answer', url: pageAddress, answer: 'went-on' });
    location.replace(pageAddress);
});
byId('turn-back').addEventListener('click', async () => {
    await ask({ ask: 'answer', url: pageAddress, answer: 'turned-back' });
    leave();
});
keepShowing({ ask: 'page', url: pageAddress }, show);
