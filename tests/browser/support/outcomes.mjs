// What a tab shows in the end: a page of the web, or which of ours.
// @ts-check

import { awaitThat } from './deadline.mjs';

/** @typedef {import('./Browser.mjs').Tab} Tab */
/** One of our pages by its name, or a page of the web.
 * @typedef {'blocked' | 'warning' | 'waiting' | 'open'} Outcome */

/** Goes there and waits until the tab shows something. @param {Tab} tab @param {string} address @returns {Promise<Outcome>} */
export async function visit(tab, address) {
    await tab.go('about:blank');
    await tab.go(address);
    const outcome = await awaitThat(`something to be shown in place of ${address}`, () => outcomeOf(tab));
    return /** @type {Outcome} */ (outcome);
}

/** What the tab shows; nothing while that changes. @param {Tab} tab @returns {Promise<Outcome | undefined>} */
export async function outcomeOf(tab) {
    return await tab.ask(`/-extension:/.test(location.protocol) ? location.pathname.replace(/.*\\/|\\.html$/g, '')
        : /^http/.test(location.protocol) && document.readyState !== 'loading' ? 'open' : ''`);
}
