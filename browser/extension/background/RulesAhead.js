// For a Chromium in which pages cannot be held back: the browser is given the list of sites beforehand, and refuses by it what it would
// fetch. It takes so many rules and no more; what is beyond them, ratings and warnings are decided when a page has been asked for.
// @ts-check

/** @typedef {import('../decision/PageRules.js').RulesMessage} RulesMessage */
/** @typedef {import('../decision/SiteList.js').Entry} Entry */
/** @typedef {chrome.declarativeNetRequest.Rule} Rule */

const mostRules = 5000;
/** What these mean in a filter cannot be taken from them. */
const special = /[*^|]/;

/**
 * The filter for the pages that an entry names: a separator or the end behind a path, as docs/decisions-of-a-page.md has it.
 * @param {Entry} entry
 * @returns {Pick<Rule['condition'], 'urlFilter' | 'requestDomains'> | null} nothing when a filter cannot say it
 */
function conditionOf([, , scheme, host, coversBelow, port, target]) {
    if (host === undefined || special.test(target ?? '') || (coversBelow && target)) {
        return null;
    }
    const start = scheme ? `|${scheme}://` : '|http*://';
    const authority = coversBelow ? '*' : host;
    const end = port ? `:${port}` : '';
    const path = !target ? (end || !coversBelow ? '^' : '') : target.endsWith('/') ? target : `${target}^`;
    return { urlFilter: start + authority + end + path, ...(host === '' ? {} : { requestDomains: [host] }) };
}

/**
 * Too few refusals are mended when the page is asked for, one too many is not: when an exception cannot be said, nothing is.
 * @param {RulesMessage} rules
 * @returns {Rule[]}
 */
export function filtersOf(rules) {
    /** @type {Rule[]} */
    const filters = [];
    for (const entry of rules.protecting ? rules.entries : []) {
        const condition = filters.length < mostRules ? conditionOf(entry) : null;
        if (condition === null && entry[0] && entry.length > 2 && rules.allowsFirst) {
            return [];
        }
        if (condition !== null) {
            filters.push({
                id: filters.length + 1,
                priority: entry[0] === rules.allowsFirst ? 2 : 1,
                action: { type: entry[0] ? 'allow' : 'block' },
                condition: { ...condition, isUrlFilterCaseSensitive: true, resourceTypes: ['main_frame', 'sub_frame', 'object'] },
            });
        }
    }
    return filters;
}

/** Puts these in the place of those before. @param {RulesMessage} rules */
export async function giveAhead(rules) {
    const before = await chrome.declarativeNetRequest.getDynamicRules();
    await chrome.declarativeNetRequest.updateDynamicRules({
        removeRuleIds: before.map((rule) => rule.id),
        addRules: filtersOf(rules),
    });
}
