// Addresses, entries and settings that a fixed seed makes: for holding those who decide on pages against each other. They are made
// of few parts, so that many entries fit many addresses, and of every spelling that one page can have.
// @ts-check

/** A generator of numbers, mulberry32: the same for a seed in every program. @param {number} seed */
function numbersFrom(seed) {
    let state = seed >>> 0;
    return () => {
        state = (state + 0x6d2b79f5) >>> 0;
        let mixed = Math.imul(state ^ (state >>> 15), state | 1);
        mixed ^= mixed + Math.imul(mixed ^ (mixed >>> 7), mixed | 61);
        return ((mixed ^ (mixed >>> 14)) >>> 0) / 2 ** 32;
    };
}

const names = [
    'site.example', 'www.site.example', 'a.b.site.example', 'mysite.example', 'other.example', 'bücher.example', 'www.bücher.example',
    'xn--bcher-kva.example', 'faß.example', 'my_site.example', '-dash.example', 'ｓｉｔｅ.example', 'site。example', 'пример.example',
    'localhost', 'example', 'google.de', 'www.google.co.uk', 'google.evil.example', 'bing.com', 'www.bing.com', 'duckduckgo.com',
    'search.yahoo.com', 'xn--ls8h.example', 'r3---sn.site.example', 'münchen.site.example',
];
const addresses = [
    '10.0.0.1', '192.0.2.7', '192.0.2.255', '198.51.100.4', '127.0.0.1', '0x7f.1', '2130706433', '0300.0.02.7', '10.1', '255.255.255.255',
    '0.0.0.0', '[::1]', '[2001:DB8::A]', '[::ffff:192.0.2.7]', '[0:0:0:0:0:0:0:1]', '[fe80::1:0:0:2]',
];
const broken = [
    'http://', 'https:///', 'http://?x', 'http://a..example/', 'http://.site.example/', 'http://256.1.1.1/', 'http://1.2.3.4.5/',
    'http://site.example:99999/', 'http://site.example:8x/', 'http://[::1/', 'http://[::g]/', 'http://si te.example/', 'http://a%00b.example/',
    'http://a<b.example/', 'about:blank', 'data:text/html,x', 'javascript:1', 'file:///etc/hosts', 'blob:https://site.example/x',
    'view-source:https://site.example/', 'mailto:a@site.example', 'ftp://site.example/', 'ws://site.example/', 'http:', 'https://%/',
];
const steps = ['a', 'A', 'ab', 'b', '%61', '%2F', '..', '.', '%2e%2E', '', 'ü', '%c3%bc', 'a b', "a'b", 'x;y=1', 'a|b', '{c}', '100%', '~', '%7E', 'search', '^', '`', '[d]', '@', ':', '\\'];
const queries = ['', '?', '?x=1', '?x=1&y=2', '?y=2', '?q=words', '?q=words&safe=active', '?safe=off&q=w', '?p=words', "?x='1'", '?a=b?c/d', '?x=%zz&y=ü', '?q=a|b^c', '?x=1#part', '?\\'];
const categories = ['Games', 'News', 'Café', 'Gambling'];

export class PageGenerator {
    /** @param {number} seed */
    constructor(seed) {
        this.next = numbersFrom(seed);
    }

    /** @template T @param {T[]} from @returns {T} */
    one(from) {
        return from[Math.floor(this.next() * from.length)];
    }

    /** @param {number} share */
    chance(share) {
        return this.next() < share;
    }

    host() {
        const host = this.chance(0.75) ? this.one(names) : this.one(addresses);
        const isName = names.includes(host);
        if (isName && this.chance(0.1)) {
            return host.toUpperCase();
        }
        if (isName && this.chance(0.06)) {
            return `${host}.`;
        }
        return isName && this.chance(0.06) ? host.replace('e', '%65') : host;
    }

    path() {
        let path = '';
        for (let count = Math.floor(this.next() * 5); count > 0; --count) {
            path += `/${this.one(steps)}`;
        }
        return path || (this.chance(0.7) ? '/' : '');
    }

    port() {
        return this.chance(0.8) ? '' : this.one([':80', ':443', ':8443', ':', ':0443', ':65535', ':0']);
    }

    /** An address as somebody could open it. */
    address() {
        if (this.chance(0.06)) {
            return this.one(broken);
        }
        const scheme = this.one(['http://', 'https://', 'https://', 'HTTPS://', 'https:', 'http:\\\\', 'https:///']);
        const user = this.chance(0.05) ? this.one(['user@', 'user:word@', 'site.example@', 'a@b@']) : '';
        const blanks = this.chance(0.03) ? ' ' : '';
        const part = this.chance(0.05) ? '#part' : '';
        return blanks + scheme + user + this.host() + this.port() + this.path() + this.one(queries) + part + blanks;
    }

    /** An entry of the list, readable or not. */
    entry() {
        if (this.chance(0.04)) {
            return this.one(['', '*x', 'a*.example', '*.192.0.2.7', 'site.example:99999', 'http://', 'ftp://site.example/', '?']);
        }
        const scheme = this.chance(0.7) ? '' : this.one(['http://', 'https://', 'HTTP://']);
        const host = this.chance(0.02) ? '*' : (this.chance(0.25) ? '*.' : '') + this.host();
        const target = this.chance(0.5) ? '' : this.path() + (this.chance(0.3) ? this.one(queries) : '');
        return scheme + host + this.port() + target;
    }

    /** What the settings file could hold. */
    settings() {
        const onOff = () => this.one([0, 1]);
        const action = () => this.one([1, 2, 3]);
        const some = (/** @type {string[]} */ from) => from.filter(() => this.chance(0.5));
        return {
            numbers: {
                Enabled: this.chance(0.85) ? 1 : 0,
                ALLOW_OVER_Block: onOff(),
                CAT_Enabled: onOff(),
                UNCAT_Block: this.chance(0.4) ? 1 : 0,
                GenPolicyBlockPhishingAction: onOff(),
                GenPolicyRPXUnReachableAction: onOff(),
                RedSiteAction: action(),
                YellowSiteAction: action(),
                UnverifiedSiteAction: action(),
                GenPolicyUnverifiedAction: action(),
                SSOn: onOff(),
                GenPolicyLogGreenSiteAction: onOff(),
                GenPolicyLogAllowSiteAction: onOff(),
            },
            entries: Array.from({ length: Math.floor(this.next() * 60) }, () => ({ action: this.one([0, 1, 7]), text: this.entry() })),
            ranges: some(['192.0.2.0/24', '10.0.0.0-10.255.255.255', '127.0.0.1', '192.0.0.0/16', 'no range', '198.51.100.4/255.255.255.254']),
            categories: some(categories),
        };
    }
}
