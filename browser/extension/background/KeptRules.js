// What decides from memory, and keeps it over a restart: the last whole rules that a host has sent, and what it knows of sites.
// @ts-check

import { PageRules } from '../decision/PageRules.js';
import { Ratings } from '../decision/Ratings.js';

/** @typedef {import('../decision/Ratings.js').RatingsMessage} RatingsMessage */
/** @typedef {import('./messages.js').Settings} Settings */
/** @typedef {import('./messages.js').HostDecision} HostDecision */

const places = { settings: 'settings', ratings: 'ratings' };

export class KeptRules {
    /** @type {PageRules | null} */
    #rules = null;
    /** @type {Ratings | null} */
    #ratings = null;

    /** What was kept before this start; nothing when the host has been faster. @returns {Promise<Settings | null>} */
    async load() {
        const kept = await chrome.storage.local.get([places.settings, places.ratings]);
        const settings = /** @type {Settings | undefined} */ (kept[places.settings]);
        const ratings = /** @type {RatingsMessage | undefined} */ (kept[places.ratings]);
        if (ratings && this.#ratings === null) {
            this.#ratings = new Ratings(ratings);
        }
        if (!settings?.rules || this.#rules !== null) {
            return null;
        }
        this.#rules = new PageRules(settings.rules);
        return settings;
    }

    /** Settings without rules say that the host has none yet: what is kept goes on. @param {Settings} settings */
    take(settings) {
        if (settings.rules) {
            this.#rules = new PageRules(settings.rules);
            chrome.storage.local.set({ [places.settings]: settings });
        }
    }

    /** @param {RatingsMessage} ratings */
    takeRatings(ratings) {
        this.#ratings = new Ratings(ratings);
        chrome.storage.local.set({ [places.ratings]: ratings });
    }

    /** Both have to be there: a site that is not known yet may be any. @param {string} url @returns {HostDecision} */
    decide(url) {
        const ratings = this.#ratings;
        return ratings === null || this.#rules === null ? { action: 'wait', url }
            : this.#rules.decide(url, (page) => ratings.standingOf(page));
    }
}
