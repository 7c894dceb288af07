// The stream of the gateway. It connects again by itself, and ends while nobody sees the page: a browser has only six
// connections to a server, and the commands of other tabs need them.
import { ApiError, open } from "./api.js";
import { silenceLimitMs } from "./picture.js";
import { EventParser } from "./sse.js";

const shortestPauseMs = 300;
const longestPauseMs = 3000;

export class Stream {
    #running = null;
    #watch = 0;

    /** `onMessage(event, value)` gets the messages, `onLost(error)` each end of a connection. */
    constructor(onMessage, onLost) {
        this.onMessage = onMessage;
        this.onLost = onLost;
        document.addEventListener("visibilitychange", () => (document.hidden ? this.stop() : this.restart()));
    }

    restart() {
        this.stop();
        if (document.hidden)
            return;
        this.#running = new AbortController();
        this.#run(this.#running);
    }

    stop() {
        this.#running?.abort();
        this.#running = null;
        clearTimeout(this.#watch);
    }

    async #run(running) {
        let pauseMs = shortestPauseMs;
        while (!running.signal.aborted) {
            const isRead = () => (pauseMs = shortestPauseMs);
            const error = await this.#read(running.signal, isRead).catch((caught) => caught);
            clearTimeout(this.#watch);
            if (running.signal.aborted)
                return;
            this.onLost(error instanceof ApiError ? error : new ApiError("network"));
            await new Promise((resolve) => setTimeout(resolve, pauseMs));
            pauseMs = Math.min(2 * pauseMs, longestPauseMs);
        }
    }

    /** Reads one connection to its end, or until the gateway is silent. */
    async #read(signal, isRead) {
        const connection = new AbortController();
        signal.addEventListener("abort", () => connection.abort(), { signal: connection.signal });
        const heard = () => {
            clearTimeout(this.#watch);
            this.#watch = setTimeout(() => connection.abort(), silenceLimitMs);
        };
        heard();
        const response = await open("stream", connection.signal);
        const reader = response.body.pipeThrough(new TextDecoderStream()).getReader();
        const parser = new EventParser();
        for (;;) {
            const { value, done } = await reader.read();
            if (done)
                return null;
            heard();
            isRead();
            for (const { event, data } of parser.push(value))
                this.onMessage(event, JSON.parse(data));
        }
    }
}
