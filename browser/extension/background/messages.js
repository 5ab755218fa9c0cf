// The types of the host's messages (docs/browser-host.md), and of those between our pages and the background.
// @ts-check

/** @typedef {import('../decision/PageRules.js').Decision} Decision */
/** @typedef {import('../decision/PageRules.js').RulesMessage} RulesMessage */

/** Nothing can be said yet: the page waits.
 * @typedef {{ action: 'wait', url: string }} Wait */

/** @typedef {(Decision & { ruled?: boolean | null }) | Wait} HostDecision */

/**
 * @typedef {object} Settings
 * @property {'waiting' | 'current' | 'kept'} state
 * @property {string} because
 * @property {number} generation
 * @property {string} since
 * @property {boolean} protecting
 * @property {boolean | null} managed
 * @property {{ reachable: boolean, because: string, lists: { name: string, source: string, date: string, count: number, licence: string }[] }} [ratings]
 * @property {{ entries: number, ranges: number, categories: number, numbers?: Record<string, number> }} [summary]
 * @property {RulesMessage} [rules]
 */

/** What came of asking for access; `number`: of the request that is open, or 0. `last`: the one before, with its times in RFC 3339.
 * @typedef {object} Requested
 * @property {'asked' | 'known' | 'told' | 'refused' | 'away'} outcome
 * @property {string} url
 * @property {number} number
 * @property {string} because
 * @property {{ number: number, state: 'open' | 'granted' | 'denied', asked: string, answered: string, answer: string, until: string } | null} last
 */

/**
 * What a page of ours asks.
 * @typedef {{ ask: 'page', url: string }
 *     | { ask: 'answer', url: string, answer: 'went-on' | 'turned-back' }
 *     | { ask: 'request', url: string, reason: string }
 *     | { ask: 'requests', url: string }
 *     | { ask: 'status' }} PageQuestion
 */

/** Whether and how pages are decided.
 * @typedef {object} State
 * @property {boolean} connected
 * @property {string} because
 * @property {boolean} holds whether pages can be held back until they are decided
 * @property {boolean} inPrivate whether the browser runs the extension in private windows too
 * @property {Omit<Settings, 'rules'> | null} settings
 */

/** @typedef {{ state: State, decision: HostDecision }} PageAnswer */

export {};
