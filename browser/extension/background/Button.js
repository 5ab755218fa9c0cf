// The button says whether pages are decided, and why not when they are not.
// @ts-check

/** @typedef {import('./messages.js').State} State */

const attention = '#b3261e';
const quiet = '#5f6368';

/** @param {string} [because] */
const reasonOf = (because) => because || chrome.i18n.getMessage('noReasonYet');

/** @param {State} state @returns {{ key: string, because: string, badge: string, color: string }} */
export function describe(state) {
    if (!state.connected) {
        return { key: 'buttonAway', because: reasonOf(state.because), badge: '!', color: attention };
    }
    if (state.settings === null || state.settings.state === 'waiting') {
        return { key: 'buttonWaiting', because: reasonOf(state.settings?.because), badge: '…', color: attention };
    }
    if (!state.holds) {
        return { key: 'buttonCannotHold', because: '', badge: '!', color: attention };
    }
    if (state.settings.state === 'kept') {
        return { key: 'buttonKept', because: reasonOf(state.settings.because), badge: '', color: quiet };
    }
    return state.settings.protecting ? { key: 'buttonOn', because: '', badge: '', color: quiet }
        : { key: 'buttonOff', because: '', badge: 'off', color: quiet };
}

/** @param {State} state */
export function showOnButton(state) {
    const { key, because, badge, color } = describe(state);
    const outside = state.inPrivate ? [] : [chrome.i18n.getMessage('buttonNotPrivate')];
    chrome.action.setTitle({ title: [chrome.i18n.getMessage(key, [because]), ...outside].join('\n') });
    chrome.action.setBadgeText({ text: badge });
    chrome.action.setBadgeBackgroundColor({ color });
}
