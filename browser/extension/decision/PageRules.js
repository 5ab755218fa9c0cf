// What happens to a page, decided from memory: for browsers that want the answer at once. It is the second of its kind beside
// browser/decision, from which the host answers; the tables in tests/data/decisions and the agreement test hold the two together.
// @ts-check

import { withSafeSearch } from './SafeSearch.js';
import { SiteList } from './SiteList.js';
import { parseWebUrl, schemeOf, textOf } from './WebUrl.js';

/** @typedef {import('./SiteList.js').Entry} Entry */
/** @typedef {import('./WebUrl.js').WebUrl} WebUrl */
/** @typedef {{ name: string, number: number }} Category */
/** What is known of a site from elsewhere.
 * @typedef {object} Standing
 * @property {number} [rating]
 * @property {Category[]} [categories]
 * @property {boolean} [isPhishing]
 * @property {boolean} [isReachable]
 * @property {string} [ratedBy]
 */
/** The member "rules" of the host's settings.
 * @typedef {object} RulesMessage
 * @property {boolean} protecting
 * @property {boolean} allowsFirst
 * @property {boolean} blocksCategories
 * @property {boolean} blocksUncategorised
 * @property {boolean} reportsGreen
 * @property {boolean} reportsAllowed
 * @property {boolean} searchesSafely
 * @property {Record<string, string>} actions
 * @property {Entry[]} entries
 * @property {[string, number?, number?][]} ranges
 * @property {string[]} categories
 */
/** As the host's "decision", but for "id" and "ruled".
 * @typedef {object} Decision
 * @property {string} url
 * @property {'allow' | 'warn' | 'block'} action
 * @property {string} by
 * @property {'never' | 'at once' | 'when answered'} reporting
 * @property {string} setting
 * @property {{ place: number, text: string, allows: boolean } | null} entry
 * @property {{ place: number, text: string, allows: boolean } | null} overruled
 * @property {{ place: number, text: string } | null} range
 * @property {Category | null} category
 * @property {number} rating
 * @property {string} ratingName
 * @property {string} ratedBy
 * @property {string} safeSearch
 */

const notRated = -100;

/** @type {Record<string, string>} */
const settingOfRating = {
    RED: 'RedSiteAction',
    YELLOW: 'YellowSiteAction',
    UNRATED: 'UnverifiedSiteAction',
    UNVERIFIED: 'GenPolicyUnverifiedAction',
};

/** @param {number} rating */
export function ratingName(rating) {
    if (rating === notRated || (rating > 15 && rating < 30)) {
        return 'UNRATED';
    }
    if (rating < 15) {
        return 'MINIMAL_RISK';
    }
    return rating === 15 ? 'UNVERIFIED' : rating < 50 ? 'YELLOW' : 'RED';
}

/** @param {string} name @returns {'allow' | 'warn' | 'block'} */
function actionOfName(name) {
    return name === 'BLOCK' ? 'block' : name === 'WARN' ? 'warn' : 'allow';
}

export class PageRules {
    /** @param {RulesMessage} rules */
    constructor(rules) {
        this.rules = rules;
        this.list = new SiteList(rules.entries, rules.allowsFirst);
        this.categories = new Set(rules.categories);
        this.stretches = stretchesOf(rules.ranges);
    }

    /**
     * Decides on the page at an address. What is no web page is allowed and never reported.
     * @param {string} address
     * @param {(url: WebUrl | null) => Standing} [rate] what is known of a site; null: of one that cannot be read
     * @returns {Decision}
     */
    decide(address, rate = () => ({})) {
        const url = parseWebUrl(address);
        const decision = emptyDecision(url === null ? address : textOf(url));
        if (url === null && !/^https?$/.test(schemeOf(address))) {
            return decision;
        }
        if (!this.rules.protecting) {
            return Object.assign(decision, { by: 'protection', setting: 'Enabled' });
        }
        if (url !== null) {
            this.#lookUp(decision, url);
        }
        this.#judge(decision, rate(url));
        this.#sayWhenToReport(decision);
        if (this.rules.searchesSafely && url !== null && decision.action !== 'block') {
            decision.safeSearch = withSafeSearch(url);
        }
        return decision;
    }

    /**
     * @param {Decision} decision
     * @param {WebUrl} url
     */
    #lookUp(decision, url) {
        const entryAt = (/** @type {number} */ place) =>
            place < 0 ? null : { place, text: this.rules.entries[place][1], allows: this.rules.entries[place][0] };
        const { entry, overruled } = this.list.find(url);
        decision.entry = entryAt(entry);
        decision.overruled = entryAt(overruled);
        const range = url.address === null ? -1 : placeOf(this.stretches, url.address);
        decision.range = range < 0 ? null : { place: range, text: this.rules.ranges[range][0] };
    }

    /**
     * The rules in their order; the first that decides ends it.
     * @param {Decision} decision
     * @param {Standing} standing
     */
    #judge(decision, standing) {
        const isExempt = decision.range !== null && decision.entry === null;
        const known = isExempt ? { rating: 0 } : standing;
        decision.rating = known.rating ?? notRated;
        decision.ratingName = ratingName(decision.rating);
        decision.ratedBy = known.ratedBy ?? '';
        const reachable = known.isReachable ?? true;
        const category = isExempt ? null : this.#blockedCategory(known.categories ?? [], reachable);
        const blocks = (/** @type {string} */ condition) => this.rules.actions[condition] === 'BLOCK';
        const decide = (/** @type {string} */ by, /** @type {string} */ setting, /** @type {Decision['action']} */ action) =>
            Object.assign(decision, { by, setting, action });
        if (decision.entry !== null) {
            decide('list', '', decision.entry.allows ? 'allow' : 'block');
        } else if (decision.range !== null) {
            decide('private range', '', actionOfName(this.rules.actions[decision.ratingName]));
        } else if (!reachable && blocks('RPXUNREACHABLE')) {
            decide('reachability', 'GenPolicyRPXUnReachableAction', 'block');
        } else if (category !== null) {
            decide('category', category.name === '' ? 'UNCAT_Block' : 'CAT_Enabled', 'block').category = category;
        } else if (known.isPhishing && blocks('PHISHING')) {
            decide('phishing', 'GenPolicyBlockPhishingAction', 'block');
        } else {
            decide('rating', settingOfRating[decision.ratingName] ?? '', actionOfName(this.rules.actions[decision.ratingName]));
        }
    }

    /**
     * @param {Category[]} categories
     * @param {boolean} reachable
     * @returns {Category | null}
     */
    #blockedCategory(categories, reachable) {
        if (!this.rules.blocksCategories) {
            return null;
        }
        if (categories.length === 0) {
            return this.rules.blocksUncategorised && reachable ? { name: '', number: 0 } : null;
        }
        return categories.find((category) => this.categories.has(category.name)) ?? null;
    }

    /** @param {Decision} decision */
    #sayWhenToReport(decision) {
        const isGreen = decision.by === 'rating' && decision.setting === '' && this.rules.reportsGreen;
        const isListed = decision.by === 'list' && this.rules.reportsAllowed;
        if (decision.action === 'warn') {
            decision.reporting = 'when answered';
        } else if (decision.action === 'block' || isGreen || isListed) {
            decision.reporting = 'at once';
        }
    }
}

/** @param {string} url @returns {Decision} */
function emptyDecision(url) {
    return {
        url,
        action: 'allow',
        by: 'address',
        reporting: 'never',
        setting: '',
        entry: null,
        overruled: null,
        range: null,
        category: null,
        rating: notRated,
        ratingName: ratingName(notRated),
        ratedBy: '',
        safeSearch: '',
    };
}

/**
 * The ranges by their first addresses; one that lies within an earlier one adds nothing.
 * @param {[string, number?, number?][]} ranges
 */
function stretchesOf(ranges) {
    /** @type {{ first: number, last: number, place: number }[]} */
    const all = [];
    ranges.forEach(([, first, last], place) => {
        if (first !== undefined && last !== undefined) {
            all.push({ first, last, place });
        }
    });
    all.sort((a, b) => a.first - b.first || a.place - b.place);
    let end = -1;
    return all.filter((stretch) => {
        const adds = stretch.last > end;
        end = Math.max(end, stretch.last);
        return adds;
    });
}

/**
 * @param {{ first: number, last: number, place: number }[]} stretches
 * @param {number} address
 */
function placeOf(stretches, address) {
    let low = 0;
    let high = stretches.length;
    while (low < high) {
        const middle = (low + high) >>> 1;
        if (stretches[middle].first <= address) {
            low = middle + 1;
        } else {
            high = middle;
        }
    }
    return low > 0 && address <= stretches[low - 1].last ? stretches[low - 1].place : -1;
}
