// Whether a browser of this machine, as it is installed, holds back a page of the list. packaging/test-installed-browser runs it
// below the root that it has installed the packages into.
// Usage: installed.mjs firefox|chromium blocked|free      blocked: blocked.example must not be fetched; free: it must be
// @ts-check

import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { TestBrowser } from './Browser.mjs';
import { awaitThat } from './deadline.mjs';
import { browserUser, hostProcessesBelow } from './Machine.mjs';
import { WebSite } from './WebSite.mjs';

const [name, expected] = process.argv.slice(2);
if (!(name === 'firefox' || name === 'chromium') || !(expected === 'blocked' || expected === 'free')) {
    console.error('Usage: installed.mjs firefox|chromium blocked|free');
    process.exit(2);
}

/** The part of a machine that a browser needs: this one itself, with the packages' host. */
class InstalledMachine {
    root = '/';
    environment = { ...process.env };
    home = fs.mkdtempSync(path.join(os.tmpdir(), 'browsers.'));

    constructor() {
        fs.chmodSync(this.home, 0o755);
    }

    hostProcesses() {
        return hostProcessesBelow('/usr/libexec/sentrel/');
    }
}

const machine = new InstalledMachine();
const site = await WebSite.started();
const browser = new TestBrowser(name, /** @type {any} */ (machine), site.port);
try {
    await browser.start();
    if (expected === 'blocked') {
        await browser.awaitExtension();
        const tab = await browser.open('http://blocked.example/');
        await tab.awaitOwnPage('blocked');
        await (await browser.open('http://open.example/')).awaitPage('http://open.example/');
        if (site.wasAsked('blocked.example')) {
            throw new Error('the blocked page was fetched');
        }
    } else {
        await (await browser.open('http://blocked.example/')).awaitPage('http://blocked.example/');
        await awaitThat('the page to be fetched', () => site.wasAsked('blocked.example'));
        if (machine.hostProcesses().length > 0) {
            throw new Error('the host runs');
        }
    }
    console.log(`${name}: blocked.example is ${expected}, as ${browserUser}, ${await browser.tabs.version()}`);
} finally {
    await browser.close();
    await site.stop();
    fs.rmSync(machine.home, { recursive: true, force: true, maxRetries: 20, retryDelay: 100 });
}
