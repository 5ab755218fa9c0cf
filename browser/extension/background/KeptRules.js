// What decides from memory, and keeps it over a restart: the last whole rules that a host has sent.
// @ts-check

import { PageRules } from '../decision/PageRules.js';

/** @typedef {import('./messages.js').Settings} Settings */
/** @typedef {import('./messages.js').HostDecision} HostDecision */

const place = 'settings';

export class KeptRules {
    /** @type {PageRules | null} */
    #rules = null;

    /** What was kept before this start; nothing when the host has been faster. @returns {Promise<Settings | null>} */
    async load() {
        const kept = /** @type {Settings | undefined} */ ((await chrome.storage.local.get(place))[place]);
        if (!kept?.rules || this.#rules !== null) {
            return null;
        }
        this.#rules = new PageRules(kept.rules);
        return kept;
    }

    /** Settings without rules say that the host has none yet: what is kept goes on. @param {Settings} settings */
    take(settings) {
        if (settings.rules) {
            this.#rules = new PageRules(settings.rules);
            chrome.storage.local.set({ [place]: settings });
        }
    }

    /** @param {string} url @param {boolean} isReachable whether ratings can be had @returns {HostDecision} */
    decide(url, isReachable) {
        return this.#rules?.decide(url, { isReachable }) ?? { action: 'wait', url };
    }
}
