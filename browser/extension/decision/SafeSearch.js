// Where the search of a known engine goes while safe search is on, as browser/decision/SafeSearch.cpp has it.
// @ts-check

import { pathLength, textOf } from './WebUrl.js';

/** @typedef {import('./WebUrl.js').WebUrl} WebUrl */
/**
 * A search engine. Its hosts are the name, with or without "www." in front, and with countries any country's.
 * @typedef {{ host: string, countries?: boolean, path: string, words: string, parameter: string, value: string }} Engine
 */

/** @type {Engine[]} */
const engines = [
    { host: 'google', countries: true, path: '/search', words: 'q', parameter: 'safe', value: 'active' },
    { host: 'bing.com', path: '/search', words: 'q', parameter: 'adlt', value: 'strict' },
    { host: 'bing.com', path: '/images/search', words: 'q', parameter: 'adlt', value: 'strict' },
    { host: 'bing.com', path: '/videos/search', words: 'q', parameter: 'adlt', value: 'strict' },
    { host: 'duckduckgo.com', path: '/', words: 'q', parameter: 'kp', value: '1' },
    { host: 'search.yahoo.com', path: '/search', words: 'p', parameter: 'vm', value: 'r' },
];

/** @param {string} ending what stands behind an engine's name: a country's, such as ".de" or ".co.uk"? */
function isCountryEnding(ending) {
    return ending.startsWith('.') && ending.length > 2 && ending.length <= 7 && ending.split('.').length <= 3;
}

/**
 * @param {Engine} engine
 * @param {string} fullHost
 */
function isHostOf(engine, fullHost) {
    const host = fullHost.startsWith('www.') ? fullHost.slice(4) : fullHost;
    return engine.countries
        ? host.startsWith(engine.host) && isCountryEnding(host.slice(engine.host.length))
        : host === engine.host;
}

/** @param {string} parameter */
function nameIn(parameter) {
    return parameter.split('=', 1)[0];
}

/**
 * The same search with the engine's own parameter; "" when the page is no search of one, or has it.
 * @param {WebUrl} url
 */
export function withSafeSearch(url) {
    const path = pathLength(url.target);
    const engine = engines.find((each) => url.target.slice(0, path) === each.path && isHostOf(each, url.host));
    if (engine === undefined || path === url.target.length) {
        return '';
    }
    const parameters = url.target.slice(path + 1).split('&');
    const others = parameters.filter((parameter) => nameIn(parameter) !== engine.parameter);
    const own = parameters.filter((parameter) => nameIn(parameter) === engine.parameter);
    const wanted = engine.parameter + '=' + engine.value;
    const isSafe = own.length === 1 && own[0] === wanted;
    if (isSafe || !others.some((parameter) => nameIn(parameter) === engine.words)) {
        return '';
    }
    return textOf({ ...url, target: engine.path + '?' + [...others, wanted].join('&') });
}
