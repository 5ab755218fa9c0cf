// The management server of a machine's site: mosquitto on loopback with TLS, the site's signing key, and the machine's enrolment
// there. Policies go to it by `sentrelctl policy push`, as an administrator's do.
// @ts-check

import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { once } from 'node:events';
import fs from 'node:fs';
import net from 'node:net';
import { awaitThat, within } from './deadline.mjs';

/** @typedef {import('./Machine.mjs').Machine} Machine */
/** What a policy sets, by feature, section and key. @typedef {Record<string, Record<string, Record<string, unknown>>>} Features */

const machineId = 'desk-1';
const mosquitto = '/usr/sbin/mosquitto';

/** A port that nobody has at the moment. */
async function freePort() {
    const server = net.createServer().listen(0, '127.0.0.1');
    await within('a free port', once(server, 'listening'));
    const { port } = /** @type {net.AddressInfo} */ (server.address());
    server.close();
    return port;
}

/** @param {number} port */
async function accepts(port) {
    const socket = net.connect(port, '127.0.0.1');
    try {
        await within('a connection', once(socket, 'connect'));
        return true;
    } catch {
        return false;
    } finally {
        socket.destroy();
    }
}

export class ManagementServer {
    #version = 0;

    /** @param {Machine} machine @param {string} directory */
    constructor(machine, directory) {
        this.machine = machine;
        this.directory = directory;
    }

    /** With the machine enrolled, which takes signed policies only. Its daemon is started anew. @param {Machine} machine */
    static async enrol(machine) {
        const directory = `${machine.root}/site`;
        fs.mkdirSync(directory, { mode: 0o700 });
        const server = new ManagementServer(machine, directory);
        server.#makeCertificate();
        server.#writeEnrolment(await server.#startBroker());
        await machine.kill9('daemon');
        machine.start('daemon');
        await awaitThat('the machine to be online', () => /"online"/.test(machine.tryCtl(['state', '--machine', machineId, '--json=short']).stdout));
        return server;
    }

    /** Gives the machine its next policy, with these features and no others, and waits for its result.
     * @param {Features} features */
    push(features) {
        const done = this.tryPush(features, 'site.key');
        assert.equal(done.status, 0, done.stderr);
    }

    /** @param {Features} features @param {string} key that it is signed with */
    tryPush(features, key) {
        const policy = { version: ++this.#version, id: 'browsing', sections: { NODE_ST_1070UNIX: { EnforcePolicy: 1 } }, features };
        const words = ['policy', 'push', '-', '--machine', machineId, '--sign', `${this.directory}/${key}`, '--wait', '--timeout', '10'];
        return this.machine.tryCtl(words, JSON.stringify(policy));
    }

    /** A pair of keys for signing. @param {string} name @returns {string} the public one, as an enrolment has it */
    makeKeys(name) {
        this.machine.ctl('agent', 'keygen', '--signing', `${this.directory}/${name}`);
        return fs.readFileSync(`${this.directory}/${name}.pub`, 'utf8').trim();
    }

    /** One that signs itself: it is the broker's, and the authority that the machine trusts. */
    #makeCertificate() {
        execFileSync('openssl', ['req', '-x509', '-newkey', 'ec', '-pkeyopt', 'ec_paramgen_curve:prime256v1', '-nodes', '-days', '2',
            '-keyout', `${this.directory}/broker.key`, '-out', `${this.directory}/broker.crt`, '-subj', '/CN=localhost',
            '-addext', 'subjectAltName=IP:127.0.0.1'], { stdio: 'pipe', timeout: 20000 });
    }

    /** @returns {Promise<number>} its port */
    async #startBroker() {
        for (let attempt = 0; attempt < 5; ++attempt) { // another program may be quicker to take a port
            const port = await freePort();
            fs.writeFileSync(`${this.directory}/mosquitto.conf`, [`listener ${port} 127.0.0.1`, 'allow_anonymous true', 'persistence false',
                'user root', `certfile ${this.directory}/broker.crt`, `keyfile ${this.directory}/broker.key`, ''].join('\n'));
            const broker = this.machine.run('broker', mosquitto, ['-c', `${this.directory}/mosquitto.conf`]);
            await awaitThat('the broker', async () => await accepts(port) || broker.exitCode !== null);
            if (broker.exitCode === null) {
                return port;
            }
        }
        throw new Error('the broker did not start');
    }

    /** @param {number} port */
    #writeEnrolment(port) {
        const enrolment = {
            broker: { host: '127.0.0.1', port, tls: { ca: `${this.directory}/broker.crt` } },
            site: 'demo',
            machine: machineId,
            policy_public_key: this.makeKeys('site'),
        };
        fs.writeFileSync(`${this.machine.root}/usr/local/Orvanta/hvb/config/agent.json`, JSON.stringify(enrolment));
    }
}
