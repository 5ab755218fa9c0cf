// What is in force in this browser, and where it came from.
// @ts-check

import { describe } from '../background/Button.js';
import { byId, dateText, fillTexts, keepShowing, showFacts, text } from './common.js';

/** @typedef {import('./common.js').Fact} Fact */
/** @typedef {import('./common.js').State} State */

/** @type {Record<string, string>} */
const states = { current: 'stateCurrent', kept: 'stateKept', waiting: 'stateWaiting' };

/** @param {NonNullable<State['settings']>} settings @returns {Fact[]} */
function factsOfSettings({ state, because, since, protecting, managed, summary, ratings }) {
    /** @type {Fact[]} */
    const facts = [['factState', text(states[state], because || text('noReasonYet'))]];
    if (state === 'waiting') {
        return facts;
    }
    facts.push(['factSince', dateText(since)]);
    facts.push(['factProtection', text(protecting ? 'protectionOn' : 'protectionOff')]);
    facts.push(['factManaged', text(managed === true ? 'managedYes' : managed === false ? 'managedNo' : 'ruledUnknown')]);
    if (summary) {
        facts.push(['factEntries', String(summary.entries)]);
        facts.push(['factRanges', String(summary.ranges)]);
        facts.push(['factCategories', String(summary.categories)]);
    }
    if (ratings && !ratings.reachable) {
        facts.push(['factRatings', text('ratingsAway', ratings.because)]);
    } else if (ratings) {
        const lists = ratings.lists.map((list) => text('ratingList', list.name, String(list.count), list.date));
        facts.push(['factRatings', lists.join('; ') || text('ratingsNone')]);
    }
    return facts;
}

/** @param {{ state: State }} answer */
function show({ state }) {
    const { key, because } = describe(state);
    byId('why').textContent = text(key, because);
    showFacts([
        ['factConnection', state.connected ? text('connected') : text('notConnected', state.because || text('noReasonYet'))],
        ['factHolding', text(state.holds ? 'holdsPages' : 'cannotHold')],
        ['factPrivate', text(state.inPrivate ? 'privateDecided' : 'privateUndecided')],
        ...(state.settings ? factsOfSettings(state.settings) : []),
    ]);
}

fillTexts();
keepShowing({ ask: 'status' }, show);
