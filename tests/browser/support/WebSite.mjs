// The web, as the tests' browsers see it: one server on loopback that answers for every name. A page shows its address; some paths
// do more. It keeps what was asked for, so that a test can tell that a page was never fetched.
// @ts-check

import http from 'node:http';
import { within } from './deadline.mjs';

export class WebSite {
    /** @type {string[]} */
    #asked = [];
    /** @type {Map<string, (response: http.ServerResponse, host: string) => void>} */
    #pages = new Map();
    /** @type {Map<string, (response: http.ServerResponse, host: string) => void>} */
    #ofAll = new Map();
    /** How long each answer is kept back, as a web that is further away does. */
    milliseconds = 0;

    constructor() {
        this.server = http.createServer((request, response) => this.#answerInTime(request, response));
    }

    static async started() {
        const site = new WebSite();
        await within('the web server', new Promise((done) => site.server.listen(0, '127.0.0.1', () => done(undefined))));
        return site;
    }

    get port() {
        return /** @type {import('node:net').AddressInfo} */ (this.server.address()).port;
    }

    /** Whether a page at this address, without its scheme, was asked for. @param {string} start */
    wasAsked(start) {
        return this.#asked.some((address) => address.startsWith(start));
    }

    /** Forgets what was asked for. */
    forget() {
        this.#asked = [];
    }

    /** A page of HTML there. @param {string} address without the scheme @param {string} html */
    page(address, html) {
        this.#pages.set(address, (response) => {
            response.setHeader('content-type', 'text/html; charset=utf-8');
            response.end(`<!doctype html><title>${address}</title>${html}`);
        });
    }

    /** What every host has at this path. @param {string} path
     * @param {(response: http.ServerResponse, host: string) => void} answer */
    everywhere(path, answer) {
        this.#ofAll.set(path, answer);
    }

    /** @param {string} address without the scheme @param {string} target */
    redirect(address, target) {
        this.#pages.set(address, (response) => response.writeHead(302, { location: target }).end());
    }

    /** @param {string} address without the scheme @param {string} bytes */
    download(address, bytes) {
        this.#pages.set(address, (response) => {
            response.setHeader('content-type', 'application/octet-stream');
            response.setHeader('content-disposition', 'attachment; filename=file.bin');
            response.end(bytes);
        });
    }

    async stop() {
        this.server.closeAllConnections();
        await within('the web server to stop', new Promise((done) => this.server.close(done)));
    }

    /** @param {http.IncomingMessage} request @param {http.ServerResponse} response */
    #answerInTime(request, response) {
        if (this.milliseconds === 0) {
            this.#answer(request, response);
        } else {
            setTimeout(() => this.#answer(request, response), this.milliseconds);
        }
    }

    /** @param {http.IncomingMessage} request @param {http.ServerResponse} response */
    #answer(request, response) {
        const url = request.url ?? '';
        // A browser that takes this server for its proxy names the whole address.
        const address = url.startsWith('http://') ? url.slice(7) : (request.headers.host ?? '') + url;
        this.#asked.push(address);
        const page = this.#pages.get(address) ?? this.#ofAll.get(address.slice(address.indexOf('/')));
        if (page) {
            page(response, address.slice(0, address.indexOf('/')));
            return;
        }
        response.setHeader('content-type', 'text/html; charset=utf-8');
        response.end(`<!doctype html><title>open</title><p id=open>${address.replace(/[<&]/g, '')}</p>`);
    }
}
