// The list of sites that are allowed or blocked. The host has read the entries; here a page is looked up in them, by its host and
// by each name that its host is below, as browser/decision/SiteList.cpp does it.
// @ts-check

import { pathLength } from './WebUrl.js';

/** @typedef {import('./WebUrl.js').WebUrl} WebUrl */
/** Of the host's "rules": allows, text, and unless it names no page scheme, host, coversBelow, port, target.
 * @typedef {[boolean, string, string?, string?, boolean?, number?, string?]} Entry */
/** @typedef {{ target: string, place: number, port: number, scheme: string, allows: boolean }} Rule */
/** The rules of a host, sorted by target, and the characters of the longest target.
 * @typedef {{ rules: Rule[], longest: number }} Group */

/**
 * The beginnings of a target that an entry may ask for, none longer than the longest.
 * @param {string} target
 * @param {number} longest
 */
function* beginningsOf(target, longest) {
    const path = pathLength(target);
    for (let at = 1; at <= Math.min(target.length, longest); ++at) {
        const isInPath = at <= path;
        const isBorder = at === target.length || at === path || target[at] === (isInPath ? '/' : '&');
        if (isBorder || (isInPath && target[at - 1] === '/')) {
            yield target.slice(0, at);
        }
    }
}

/**
 * @param {Rule[]} rules sorted by their targets
 * @param {string} target
 */
function firstOf(rules, target) {
    let low = 0;
    let high = rules.length;
    while (low < high) {
        const middle = (low + high) >>> 1;
        if (rules[middle].target < target) {
            low = middle + 1;
        } else {
            high = middle;
        }
    }
    return low;
}

export class SiteList {
    /**
     * @param {Entry[]} entries
     * @param {boolean} allowsFirst
     */
    constructor(entries, allowsFirst) {
        this.allowsFirst = allowsFirst;
        /** @type {Map<string, Group>} by host, with a dot in front when it covers the names below */
        this.groups = new Map();
        entries.forEach((entry, place) => this.#add(entry, place));
        for (const { rules } of this.groups.values()) {
            rules.sort((a, b) => (a.target < b.target ? -1 : a.target > b.target ? 1 : a.place - b.place));
        }
    }

    /**
     * @param {Entry} entry
     * @param {number} place
     */
    #add([allows, , scheme, host, coversBelow, port = 0, target = ''], place) {
        if (scheme === undefined) {
            return; // it names no page
        }
        const key = (coversBelow ? '.' : '') + host;
        const rule = { target, place, port, scheme, allows };
        const group = this.groups.get(key);
        if (group === undefined) {
            this.groups.set(key, { rules: [rule], longest: target.length });
        } else {
            group.rules.push(rule);
            group.longest = Math.max(group.longest, target.length);
        }
    }

    /**
     * The place of the entry that decides, and of the first that fits too and has no precedence; -1: none.
     * @param {WebUrl} url
     */
    find(url) {
        const found = { allow: Infinity, block: Infinity };
        this.#searchHost(url.host, url, found);
        const below = '.' + url.host; // the name itself is among those that "*." covers
        for (let dot = 0; dot >= 0; dot = below.indexOf('.', dot + 1)) {
            this.#searchHost(below.slice(dot), url, found);
        }
        this.#searchHost('.', url, found);
        const [first, second] = this.allowsFirst ? [found.allow, found.block] : [found.block, found.allow];
        const place = (/** @type {number} */ each) => (each === Infinity ? -1 : each);
        return first === Infinity ? { entry: place(second), overruled: -1 } : { entry: first, overruled: place(second) };
    }

    /**
     * @param {string} host
     * @param {WebUrl} url
     * @param {{ allow: number, block: number }} found
     */
    #searchHost(host, url, found) {
        const group = this.groups.get(host);
        if (group === undefined) {
            return;
        }
        const { rules, longest } = group;
        for (const beginning of beginningsOf(url.target, longest)) {
            for (let at = firstOf(rules, beginning); at < rules.length && rules[at].target === beginning; ++at) {
                const rule = rules[at];
                if ((rule.port === 0 || rule.port === url.port) && (rule.scheme === '' || rule.scheme === url.scheme)) {
                    const kind = rule.allows ? 'allow' : 'block';
                    found[kind] = Math.min(found[kind], rule.place);
                }
            }
        }
    }
}
