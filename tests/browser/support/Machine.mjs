// A whole machine in a private root: bus, hub, settings keeper and daemon, all real, with the extension and its host installed below
// the same root. They run as root, the browsers as nobody.
// @ts-check

import { spawn, spawnSync } from 'node:child_process';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { fileURLToPath } from 'node:url';
import { awaitThat, within } from './deadline.mjs';

const tree = path.resolve(fileURLToPath(import.meta.url), '../../../..');
const build = process.env.SENTREL_BUILD ?? '';
export const browserUser = 65534;

/** The programs of the build, by the short names that the tests use. */
const programs = {
    hub: `${build}/apps/hvbd/hvbd-rooted`,
    keeper: `${build}/apps/settings-keeper/sentrel-settings-keeper-rooted`,
    daemon: `${build}/daemon/sentreld-rooted`,
};
const sentrelctl = `${build}/apps/sentrelctl/sentrelctl-rooted`;
export const browserHost = `${build}/browser/host/sentrel-browser-host-rooted`;

/** @typedef {{ id: number, url: string }} Report */
/** @typedef {'bus' | 'hub' | 'keeper' | 'daemon' | 'broker'} ProgramName */

/** The processes whose program lies below a directory. @param {string} directory @returns {number[]} */
export function hostProcessesBelow(directory) {
    return fs.readdirSync('/proc').filter((name) => /^\d+$/.test(name)).map(Number).filter((pid) => {
        try {
            return fs.readlinkSync(`/proc/${pid}/exe`).replace(/ \(deleted\)$/, '').startsWith(directory);
        } catch {
            return false; // it has ended meanwhile
        }
    });
}

export class Machine {
    /** Laid out, with the extension installed, and nothing started. */
    constructor() {
        this.root = fs.mkdtempSync(path.join(os.tmpdir(), 'sentrel.'));
        fs.chmodSync(this.root, 0o755);
        this.environment = { ...process.env, SENTREL_INSTALL_ROOT: this.root, TZ: 'UTC' };
        /** @type {Map<string, import('node:child_process').ChildProcess>} */
        this.running = new Map();
        this.#mustRun(`${tree}/packaging/lay-out-root`, [this.root, build]);
        this.#mustRun(`${tree}/packaging/install-browser-extension`, ['--root', this.root, browserHost]);
        this.home = path.join(this.root, 'home');
        fs.mkdirSync(this.home);
        fs.chownSync(this.home, browserUser, browserUser);
    }

    /** With everything running. */
    static async started() {
        const machine = new Machine();
        try {
            await machine.startBus();
            await machine.startPrograms();
            return machine;
        } catch (error) {
            await machine.remove();
            throw error;
        }
    }

    async startBus() {
        const hub = `${this.root}/usr/local/Orvanta/hvb`;
        this.run('bus', 'dbus-daemon', ['--nofork', `--config-file=${hub}/config/hub-bus.conf`]);
        await awaitThat('the hub bus', () => fs.existsSync(`${hub}/var/hvbdsocket64`));
    }

    async startPrograms() {
        this.start('hub');
        this.start('keeper');
        this.start('daemon');
        await awaitThat('hub and daemon to answer', () => this.tryCtl(['hub', 'ping']).status === 0);
    }

    /** @param {'hub' | 'keeper' | 'daemon'} name */
    start(name) {
        this.run(name, programs[name], []);
    }

    /** Starts any program, which ends with the machine. @param {ProgramName} name @param {string} program @param {string[]} words */
    run(name, program, words) {
        const output = fs.openSync(path.join(this.root, `${name}.out`), 'a');
        const child = spawn(program, words, { env: this.environment, stdio: ['ignore', output, output] });
        fs.closeSync(output);
        this.running.set(name, child);
        return child;
    }

    /** Ends a program at once, as a crash would. @param {ProgramName} name */
    async kill9(name) {
        await this.#end(name, 'SIGKILL');
    }

    /** Runs sentrelctl. @param {string[]} words @returns {string} its answer */
    ctl(...words) {
        return this.ctlWithInput('', ...words);
    }

    /** The same with this on its standard input. @param {string} input @param {string[]} words */
    ctlWithInput(input, ...words) {
        const done = this.tryCtl(words, input);
        if (done.status !== 0) {
            throw new Error(`sentrelctl ${words.join(' ')}: code ${done.status}: ${done.stderr}`);
        }
        return done.stdout;
    }

    /** @param {string[]} words @param {string} [input] */
    tryCtl(words, input) {
        return spawnSync(sentrelctl, words, { env: this.environment, encoding: 'utf8', input, timeout: 30000, maxBuffer: 1 << 26 });
    }

    /** The stored reports, the oldest first: the number of each, and what it says of the page. @returns {Report[]} */
    log() {
        const lines = this.ctl('log', '--limit', '0', '--json=short').split('\n').filter((line) => line !== '');
        return lines.map((line) => JSON.parse(line)).map(({ id, detail }) => {
            const info = Object.fromEntries(detail.info.map((/** @type {any} */ { key, value }) => [key, value]));
            return { id, url: info.URL };
        });
    }

    /** Whether a report of this page is stored. @param {string} url */
    hasReported(url) {
        return this.log().some((report) => report.url === url);
    }

    get settingsFile() {
        return `${this.root}/Users/Shared/.orvanta/product.db`;
    }

    /** Changes the settings file itself, for what no verb of sentrelctl sets. @param {string} statement */
    sql(statement) {
        this.#mustRun('sqlite3', ['-cmd', '.timeout 5000', this.settingsFile, statement]);
    }

    /** Empties the list and puts the preferences back. */
    reset() {
        this.ctl('prefs', 'reset');
    }

    /** The processes of the browser host that run now, with this machine's settings. @returns {number[]} */
    hostProcesses() {
        return hostProcessesBelow(this.root);
    }

    /** What the programs said, for a test that failed. */
    messages() {
        return fs.readdirSync(this.root).filter((name) => name.endsWith('.out'))
            .map((name) => `--- ${name}\n${fs.readFileSync(path.join(this.root, name), 'utf8')}`).join('');
    }

    /** Ends everything, the last first, and removes the root. */
    async remove() {
        for (const name of [...this.running.keys()].reverse()) {
            await this.#end(name, 'SIGTERM');
        }
        fs.rmSync(this.root, { recursive: true, force: true, maxRetries: 20, retryDelay: 100 });
    }

    /** @param {string} name @param {NodeJS.Signals} signal */
    async #end(name, signal) {
        const child = this.running.get(name);
        this.running.delete(name);
        if (child && child.exitCode === null && child.signalCode === null) {
            const ended = new Promise((done) => child.once('exit', done));
            child.kill(signal);
            await within(`${name} to end`, ended);
        }
    }

    /** @param {string} program @param {string[]} words */
    #mustRun(program, words) {
        const done = spawnSync(program, words, { encoding: 'utf8', timeout: 120000 });
        if (done.status !== 0) {
            throw new Error(`${program} ${words.join(' ')}: ${done.error ?? done.stderr}`);
        }
    }
}
