// A real browser, headless, as an ordinary user, with the extension as it is installed for all users of a machine.
//
// What differs between the two stays in this file: where they take their names from (Chromium from a resolver rule, Firefox from the
// web server as its proxy), and how they are told of the profile. Both are driven by puppeteer-core, Firefox over WebDriver BiDi
// and Chromium over a pipe. BiDi does not tell of our own pages, so a tab's address is asked of the page itself.
// @ts-check

import fs from 'node:fs';
import { createRequire } from 'node:module';
import path from 'node:path';
import { fileURLToPath } from 'node:url';
import { awaitThat, within } from './deadline.mjs';
import { browserUser } from './Machine.mjs';

/** @type {typeof import('puppeteer-core')} */
const puppeteer = createRequire(`${process.env.SENTREL_NODE_MODULES}/`)('puppeteer-core');
const extensionTree = fileURLToPath(new URL('../../../browser/extension', import.meta.url));
const asInstalled = fileURLToPath(new URL('as-installed', import.meta.url));

/** @typedef {'firefox' | 'chromium'} BrowserName */
/** @typedef {import('./Machine.mjs').Machine} Machine */

/** The browsers that this run is for. @type {BrowserName[]} */
export const browsers = /** @type {BrowserName[]} */ ((process.env.SENTREL_BROWSERS ?? 'firefox chromium').split(' '));

/** How a browser gets the extension: as it is installed for all users, Chromium's by policy; in Chromium without the policy, from a
 * directory, as a user would give it; or not at all, for comparison.
 * @typedef {'installed' | 'by its user' | 'none'} Extension */

/** The places that a browser looks at, as they are on this machine, with what is installed below the root.
 * @param {string} root */
function layInstalledPlaces(root) {
    for (const place of root === '/' ? [] : ['/etc/chromium', '/etc/firefox', '/usr/lib/mozilla', '/usr/share/mozilla/extensions']) {
        fs.mkdirSync(root + place, { recursive: true });
        if (fs.existsSync(place) && !place.startsWith('/usr/share')) {
            fs.cpSync(place, root + place, { recursive: true, force: false });
        }
    }
    // Without it Chromium shows no tool the pages of an extension that came by policy.
    fs.mkdirSync(`${root}/etc/chromium/policies/managed`, { recursive: true });
    fs.writeFileSync(`${root}/etc/chromium/policies/managed/tests.json`, '{"DeveloperToolsAvailability": 1}\n');
}

/** @param {BrowserName} name @param {number} port @param {Record<string, unknown>} preferences of Firefox, further ones */
function optionsOf(name, port, preferences) {
    if (name === 'firefox') {
        return {
            browser: /** @type {const} */ ('firefox'),
            extraPrefsFirefox: {
                'network.proxy.type': 1,
                'network.proxy.http': '127.0.0.1',
                'network.proxy.http_port': port,
                // The driver leaves out the directory that is for all users.
                'extensions.enabledScopes': 15,
                'dom.security.https_first': false,
                'browser.download.useDownloadDir': true,
                ...preferences,
            },
        };
    }
    return {
        pipe: true,
        enableExtensions: true,
        // The extension comes by policy; these keep Chromium from fetching it.
        ignoreDefaultArgs: ['--disable-background-networking', '--disable-component-update', '--disable-default-apps'],
        args: [`--host-resolver-rules=MAP * 127.0.0.1:${port}`, '--disable-features=HttpsUpgrades,HttpsFirstBalancedModeAutoEnable'],
    };
}

export class TestBrowser {
    /** @param {BrowserName} name @param {Machine} machine @param {number} port of the web site
     * @param {{ extension?: Extension, preferences?: Record<string, unknown> }} [options] preferences: further ones of Firefox */
    constructor(name, machine, port, { extension = 'installed', preferences = {} } = {}) {
        this.name = name;
        this.extension = extension;
        this.preferences = preferences;
        this.machine = machine;
        this.port = port;
        this.home = fs.mkdtempSync(path.join(machine.home, `${name}.`));
        this.profile = path.join(this.home, 'profile');
        for (const directory of [this.home, this.profile]) {
            fs.mkdirSync(directory, { recursive: true });
            fs.chownSync(directory, browserUser, browserUser);
        }
        this.places = extension === 'none' ? path.join(this.home, 'places') : machine.root;
        layInstalledPlaces(this.places);
        /** @type {import('puppeteer-core').Browser | undefined} */
        this.driver = undefined;
    }

    /** Started, and with the extension ready: a page that was asked for is decided by it.
     * @param {BrowserName} name @param {Machine} machine @param {number} port
     * @param {ConstructorParameters<typeof TestBrowser>[3]} [options] */
    static async ready(name, machine, port, options) {
        const browser = new TestBrowser(name, machine, port, options);
        try {
            await browser.start();
            if (browser.extension !== 'none') {
                await browser.awaitExtension();
            }
        } catch (error) {
            await browser.close();
            throw error;
        }
        return browser;
    }

    /** @param {string[]} words more on the command line, such as a first page */
    async start(words = []) {
        const options = optionsOf(this.name, this.port, this.preferences);
        const program = this.name === 'firefox' ? 'firefox-esr' : 'chromium';
        const start = path.join(this.home, 'start');
        fs.writeFileSync(start, `#!/bin/sh\nexec ${asInstalled} ${this.places} ${browserUser} ${program} "$@"\n`,
            { mode: 0o755 });
        if (this.extension !== 'installed') {
            fs.rmSync(`${this.places}/etc/chromium/policies/managed/sentrel.json`, { force: true });
        }
        this.driver = await puppeteer.launch({
            headless: true,
            timeout: 30000,
            protocolTimeout: 30000,
            executablePath: start,
            userDataDir: this.profile,
            env: { ...this.machine.environment, HOME: this.home, XDG_RUNTIME_DIR: this.home },
            defaultViewport: { width: 1000, height: 760 },
            ...options,
            args: [...(options.args ?? []), ...words],
        });
        if (this.extension === 'by its user') {
            await this.installWithoutPolicy();
        }
    }

    /** As a user loads an extension that no policy has brought; the host is told that it may call. */
    async installWithoutPolicy() {
        const places = `${this.machine.root}/etc/chromium`;
        const copy = path.join(this.home, 'extension');
        fs.cpSync(extensionTree, copy, { recursive: true });
        const id = await within('the installation', this.tabs.installExtension(copy));
        const host = `${places}/native-messaging-hosts/sentrel.browser_host.json`;
        const told = JSON.parse(fs.readFileSync(host, 'utf8'));
        fs.writeFileSync(host, JSON.stringify({ ...told, allowed_origins: [`chrome-extension://${id}/`] }));
    }

    /** Until the extension is connected to its host, as it tells on its status page. */
    async awaitExtension() {
        await awaitThat('the browser host', () => this.machine.hostProcesses().length > 0, 20000);
    }

    get tabs() {
        return /** @type {import('puppeteer-core').Browser} */ (this.driver);
    }

    /** A new tab, empty. */
    async tab() {
        return new Tab(await within('a new tab', this.tabs.newPage()));
    }

    /** A new tab at an address; what becomes of it is not waited for. @param {string} address */
    async open(address) {
        const tab = await this.tab();
        await tab.go(address);
        return tab;
    }

    /** All tabs that are open. */
    async allTabs() {
        return (await within('the tabs', this.tabs.pages())).map((page) => new Tab(page));
    }

    async close() {
        if (this.driver) {
            const closing = this.driver;
            this.driver = undefined;
            // The driver would put these back, as its own user's, and Firefox could not read its profile again.
            for (const name of ['prefs.js.puppeteer', 'user.js.puppeteer']) {
                fs.rmSync(path.join(this.profile, name), { force: true });
            }
            await within(`${this.name} to close`, closing.close(), 20000);
        }
    }
}

export class Tab {
    /** @param {import('puppeteer-core').Page} page */
    constructor(page) {
        this.page = page;
    }

    /** Goes there. A page that is held back or replaced meanwhile is no failure; Firefox's driver may then never say that it has
     * come to an end. What is shown is for the caller to wait for. @param {string} address */
    async go(address) {
        const load = this.page.goto(address, { waitUntil: 'domcontentloaded', timeout: 20000 }).catch(() => undefined);
        await within('a load', load, 5000).catch(() => undefined);
    }

    /** The address that it shows. @returns {Promise<string>} */
    async address() {
        return await this.ask('location.href') ?? '';
    }

    /** The value of an expression in the page, or nothing while the page is being replaced.
     * @param {string} expression @returns {Promise<any>} */
    async ask(expression) {
        return await within(`an answer of the page to ${expression}`, this.page.evaluate(expression).catch(() => undefined));
    }

    /** The text that is shown. @returns {Promise<string>} */
    async text() {
        return await this.ask('document.body?.innerText') ?? '';
    }

    /** Until it shows one of our own pages, and its words are there. @param {string} name */
    async awaitOwnPage(name) {
        await awaitThat(`our page "${name}" (the tab has ${await this.address()})`,
            () => this.ask(`/-extension:/.test(location.protocol) && location.pathname.endsWith('/${name}.html') && document.documentElement.dataset.state === 'told'`));
    }

    /** Until it shows a page of the web. @param {string} address */
    async awaitPage(address, milliseconds = 10000) {
        await awaitThat(`the page ${address.slice(0, 80)} (the tab has ${await this.address()})`,
            () => this.ask(`location.href === ${JSON.stringify(address)} && document.readyState !== 'loading'`), milliseconds);
    }

    /** Presses what has this id. @param {string} id */
    async press(id) {
        await within(`a press on ${id}`, this.page.evaluate(`document.getElementById(${JSON.stringify(id)}).click()`).catch(() => undefined));
    }

    async close() {
        await within('a tab to close', this.page.close());
    }
}
