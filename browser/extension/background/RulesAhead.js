// For a Chromium in which pages cannot be held back: the browser is given the list of sites beforehand, and refuses by it what it would
// fetch. It takes so many filters and no more; what is beyond them, ratings and warnings are decided when a page has been asked for.
//
// Too few refusals are mended when the page is asked for, one too many is not. So what a filter blocks, an entry blocks; an entry
// that no filter can say is left out. An exception is made for all that its entry allows and may be wider: the browser's filters see
// an address as it was written, with other escapes, a name and a word in front of the host, a dot behind it.
//
// In a filter ^ is a separator or the end, | the beginning or the end, and * anything: also what is far behind the host. So a filter
// with * in front of a host would be met by any address with that host in its query; schemes are named one by one in place of it.
// @ts-check

import { pathLength } from '../decision/WebUrl.js';

/** @typedef {import('../decision/PageRules.js').RulesMessage} RulesMessage */
/** @typedef {import('../decision/SiteList.js').Entry} Entry */
/** @typedef {chrome.declarativeNetRequest.Rule} Rule */
/** @typedef {Pick<Rule['condition'], 'urlFilter' | 'regexFilter' | 'requestDomains'>} Condition */

/** What every browser takes that has such filters at all. */
const leastOfMost = 5000;
/** What these mean in a filter cannot be taken from them. */
const special = /[*^|]/;
const webPages = '|http*://';

/** What an entry asks of path and query; "/" is what every page has. @param {Entry} entry */
const pathOf = ([, , , , , , target = '/']) => (target === '/' ? '' : target);

/** What stands in an address behind the host. @param {string} scheme @param {number | undefined} port */
function portText(scheme, port) {
    return !port || port === (scheme === 'http' ? 80 : 443) ? '' : `:${port}`;
}

/** The ends that a page of the entry has behind the entry's path and query. @param {string} target */
function endsBehind(target) {
    if (pathLength(target) < target.length) {
        return ['|', '&'];
    }
    return target.endsWith('/') ? [''] : ['|', '/', '?'];
}

/**
 * Filters that pages of the entry meet, and no others; none when no filter can say it. Of an entry with a path and no port those on
 * the scheme's own port.
 * @param {Entry} entry
 * @returns {string[]}
 */
function exactFiltersOf(entry) {
    const [, , scheme, host, coversBelow, port] = entry;
    const target = pathOf(entry);
    if (coversBelow || special.test(target)) {
        return [];
    }
    const behindHost = target ? endsBehind(target).map((end) => target + end) : [port ? '/' : '^'];
    return (scheme ? [scheme] : ['http', 'https']).flatMap((each) =>
        behindHost.map((behind) => `|${each}://${host}${portText(each, port)}${behind}`));
}

/** Whole domains, by the filter for their scheme; "" stands for every host. @param {Entry[]} entries */
function domainConditions(entries) {
    /** @type {Map<string, string[]>} */
    const hosts = new Map();
    for (const [, , scheme, host = ''] of entries) {
        const filter = scheme ? `|${scheme}://` : webPages;
        const named = hosts.get(filter) ?? [];
        hosts.set(filter, named);
        named.push(host);
    }
    return [...hosts].map(([urlFilter, domains]) => (domains.includes('') ? { urlFilter } : { urlFilter, requestDomains: domains }));
}

/** @param {Entry[]} entries @returns {Condition[]} */
function blockConditions(entries) {
    return [
        ...domainConditions(entries.filter((entry) => entry[4] && !entry[5] && !pathOf(entry))),
        ...entries.flatMap(exactFiltersOf).map((urlFilter) => ({ urlFilter })),
    ];
}

/** @param {Entry[]} entries @param {number} most @returns {Condition[]} */
function exceptionConditions(entries, most) {
    /** @type {Condition[]} */
    const conditions = [{ regexFilter: '^https?://[^/?#]*@' }];
    /** @type {string[]} */
    const domains = [];
    for (const [, , , host = '', coversBelow] of entries) {
        if (host !== '' && !coversBelow && conditions.length + 3 <= most) {
            const requestDomains = [host, `${host}.`];
            conditions.push(...requestDomains.map((name) => ({ urlFilter: `${webPages}${name}^`, requestDomains })));
        } else {
            domains.push(host);
        }
    }
    if (domains.length > 0) {
        const requestDomains = domains.flatMap((host) => [host, `${host}.`]);
        conditions.push({ urlFilter: webPages, ...(domains.includes('') ? {} : { requestDomains }) });
    }
    return conditions;
}

/**
 * @param {RulesMessage} rules
 * @param {number} [most]
 * @returns {Rule[]}
 */
export function filtersOf(rules, most = leastOfMost) {
    const entries = rules.protecting ? rules.entries.filter((entry) => entry.length > 2) : [];
    const blocks = blockConditions(entries.filter(([allows]) => !allows));
    if (blocks.length === 0) {
        return [];
    }
    const exceptions = exceptionConditions(rules.allowsFirst ? entries.filter(([allows]) => allows) : [], most - 1);
    const rule = (/** @type {'allow' | 'block'} */ type, /** @type {Condition} */ condition) =>
        /** @type {Rule} */ ({
            id: 0,
            priority: type === 'allow' ? 2 : 1,
            action: { type },
            condition: { ...condition, isUrlFilterCaseSensitive: true, resourceTypes: ['main_frame', 'sub_frame', 'object'] },
        });
    return [...exceptions.map((each) => rule('allow', each)), ...blocks.map((each) => rule('block', each))]
        .slice(0, most)
        .map((each, place) => ({ ...each, id: place + 1 }));
}

/** @param {RulesMessage} rules */
async function replaceBy(rules) {
    const before = await chrome.declarativeNetRequest.getDynamicRules();
    await chrome.declarativeNetRequest.updateDynamicRules({
        removeRuleIds: before.map((rule) => rule.id),
        addRules: filtersOf(rules, chrome.declarativeNetRequest.MAX_NUMBER_OF_DYNAMIC_RULES),
    });
}

/** The replacement that was begun last. @type {Promise<void>} */
let last = Promise.resolve();

/** Puts these in the place of those before, and of those that are about to come there. @param {RulesMessage} rules */
export function giveAhead(rules) {
    last = last.catch(() => undefined).then(() => replaceBy(rules));
    return last;
}
