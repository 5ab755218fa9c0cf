// In the place of a page that cannot be decided yet. It goes there by itself when it can.
// @ts-check

import { byId, fillTexts, keepShowing, leave, pageAddress, text } from './common.js';

/** @typedef {import('./common.js').PageAnswer} PageAnswer */
/** @typedef {import('./common.js').State} State */

/** @param {State} state */
function reasonToWait(state) {
    if (!state.connected) {
        return text('whyAway', state.because || text('noReasonYet'));
    }
    if (state.settings === null || state.settings.state === 'waiting') {
        return text('whyNoSettings', state.settings?.because || text('noReasonYet'));
    }
    return text('whyDeciding');
}

/** @param {PageAnswer} answer */
function show({ decision, state }) {
    if (decision.action !== 'wait') {
        location.replace(pageAddress);
        return;
    }
    byId('why').textContent = reasonToWait(state);
}

fillTexts();
byId('back').addEventListener('click', leave);
keepShowing({ ask: 'page', url: pageAddress }, show);
