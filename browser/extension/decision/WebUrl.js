// The address of a page in the one form in which pages and list entries are compared: that of docs/decisions-of-a-page.md, as
// browser/decision/WebUrl.cpp makes it. The browser reads the address; what is left is to write it one way.
// @ts-check

/**
 * @typedef {object} WebUrl
 * @property {string} scheme "http" or "https"
 * @property {string} host in ASCII and lower case, without a last dot; an address of version 6 is in brackets
 * @property {number} port the scheme's own when the address names none
 * @property {string} target path and query; begins with a slash, and has no empty query
 * @property {number | null} address of a host that is an address of version 4
 */

const unreserved = /[A-Za-z0-9\-._~]/;
const otherThanTarget = /%[0-9A-Fa-f]{2}|[^A-Za-z0-9\-._~!$&'()*+,;=:@/?]/g;
/** Browsers do not agree on these in a name: one refuses them, another one escapes them. None is in the name of a host. */
const neverInName = /[\0- #%/:<>?@[\\\]^|\x7f]/;
const versionFour = /^\d+\.\d+\.\d+\.\d+$/;

/**
 * The scheme in lower case; "" when the text does not begin with one.
 * @param {string} text
 */
export function schemeOf(text) {
    // eslint-disable-next-line no-control-regex
    const match = /^[\0- ]*([A-Za-z][A-Za-z0-9+.\-\t\n\r]*):/.exec(text);
    return match === null ? '' : match[1].replace(/[\t\n\r]/g, '').toLowerCase();
}

/**
 * A part of the address with the escapes that are needed, and no others. The browser has left ASCII alone.
 * @param {string} text
 */
function withNeededEscapes(text) {
    return text.replace(otherThanTarget, (found) => {
        if (found.length === 1) {
            return '%' + found.charCodeAt(0).toString(16).toUpperCase().padStart(2, '0');
        }
        const character = String.fromCharCode(parseInt(found.slice(1), 16));
        return unreserved.test(character) ? character : found.toUpperCase();
    });
}

/**
 * @param {string} host
 * @returns {number | null}
 */
function addressOf(host) {
    return versionFour.test(host) ? host.split('.').reduce((sum, part) => sum * 256 + Number(part), 0) : null;
}

/**
 * Reads an address. null: it is not the address of a web page, or the browser could not go there.
 * @param {string} text
 * @returns {WebUrl | null}
 */
export function parseWebUrl(text) {
    let url;
    try {
        url = new URL(text);
    } catch {
        return null;
    }
    const scheme = url.protocol.slice(0, -1);
    const host = url.hostname.endsWith('.') ? url.hostname.slice(0, -1) : url.hostname;
    const isName = !host.startsWith('[');
    if ((scheme !== 'http' && scheme !== 'https') || (isName && (neverInName.test(host) || host.split('.').includes('')))) {
        return null;
    }
    const port = url.port === '' ? ownPortOf(scheme) : Number(url.port);
    const query = url.search.length > 1 ? url.search : '';
    return { scheme, host, port, target: withNeededEscapes(url.pathname) + withNeededEscapes(query), address: addressOf(host) };
}

/** @param {string} scheme */
function ownPortOf(scheme) {
    return scheme === 'http' ? 80 : 443;
}

/**
 * The whole address; the scheme's own port is left out.
 * @param {WebUrl} url
 */
export function textOf(url) {
    const port = url.port === ownPortOf(url.scheme) ? '' : ':' + url.port;
    return url.scheme + '://' + url.host + port + url.target;
}

/**
 * How many characters of a target are its path.
 * @param {string} target
 */
export function pathLength(target) {
    const mark = target.indexOf('?');
    return mark < 0 ? target.length : mark;
}
