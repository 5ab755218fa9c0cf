// The browser's end of native messaging, by docs/browser-host.md alone: it starts a host, writes frames and reads them.
// @ts-check

import { spawn } from 'node:child_process';
import { awaitThat } from './deadline.mjs';

/** @typedef {Record<string, any>} Message */

export class HostPeer {
    /** Its settings as they last came; null before. @type {Message | null} */
    settings = null;
    /** What it knows of sites, as it last came. @type {Message | null} */
    ratings = null;
    /** The answers by their id. @type {Map<number, Message>} */
    #answers = new Map();
    #input = Buffer.alloc(0);
    /** @type {Map<number, string>} */
    #pieces = new Map();
    #lastId = 0;

    /** @param {string} program @param {NodeJS.ProcessEnv} environment */
    constructor(program, environment) {
        this.process = spawn(program, ['extension@sentrel.invalid'], { env: environment, stdio: ['pipe', 'pipe', 'inherit'] });
        this.process.stdout.on('data', (bytes) => this.#take(bytes));
        this.#send({ type: 'hello', version: 1, browser: 'chromium', rules: true, ratings: true });
    }

    /** The decisions on these addresses. @param {string[]} addresses @returns {Promise<Message[]>} */
    async decide(addresses) {
        const ids = addresses.map((url) => {
            this.#send({ type: 'decide', id: ++this.#lastId, url, frame: 'main' });
            return this.#lastId;
        });
        await awaitThat(`${ids.length} decisions of the host`, () => ids.every((id) => this.#answers.has(id)), 30000);
        return ids.map((id) => {
            const answer = this.#answers.get(id);
            this.#answers.delete(id);
            return answer ?? {};
        });
    }

    /** Ends the host by the end of its input. */
    async end() {
        const ended = new Promise((done) => this.process.once('exit', done));
        this.process.stdin.end();
        await ended;
    }

    /** @param {Message} message */
    #send(message) {
        const text = Buffer.from(JSON.stringify(message));
        const length = Buffer.alloc(4);
        length.writeUInt32LE(text.length);
        this.process.stdin.write(Buffer.concat([length, text]));
    }

    /** @param {Buffer} bytes */
    #take(bytes) {
        this.#input = Buffer.concat([this.#input, bytes]);
        let at = 0;
        while (this.#input.length >= at + 4 && this.#input.length >= at + 4 + this.#input.readUInt32LE(at)) {
            const end = at + 4 + this.#input.readUInt32LE(at);
            this.#takeMessage(JSON.parse(this.#input.subarray(at + 4, end).toString()));
            at = end;
        }
        this.#input = this.#input.subarray(at);
    }

    /** @param {Message} message */
    #takeMessage(message) {
        if (message.type === 'piece') {
            const text = (this.#pieces.get(message.of) ?? '') + message.text;
            this.#pieces.set(message.of, text);
            if (message.index + 1 === message.count) {
                this.#pieces.delete(message.of);
                this.#takeMessage(JSON.parse(text));
            }
        } else if (message.type === 'settings') {
            this.settings = message;
        } else if (message.type === 'ratings') {
            this.ratings = message;
        } else if (message.id !== undefined) {
            this.#answers.set(message.id, message);
        }
    }
}
