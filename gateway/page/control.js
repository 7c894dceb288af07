// The pairing of this device, and the lease for commands.
import { ApiError, isPaired, keepToken, post, remove, removeAtEnd } from "./api.js";

const renewIntervalMs = 2000;
const leaseLimitMs = 5000;
const roles = ["view", "operate", "maintain"];

export class Control {
    #lease = null;
    #renewedMs = 0;
    #role = null;

    /** `onLost(holder)` is called when the lease has ended without being returned. `holder` took it over, or is null. */
    constructor(picture, onLost) {
        this.picture = picture;
        this.onLost = onLost;
        setInterval(() => this.#renew(), renewIntervalMs);
        document.addEventListener("visibilitychange", () => this.#renew());
        addEventListener("pagehide", () => {
            if (this.#lease)
                removeAtEnd("control", { key: this.#lease.key });
            this.#lease = null;
        });
    }

    get isPaired() {
        return isPaired();
    }

    get role() {
        return isPaired() ? (this.#role ?? this.picture.state?.you.role ?? "view") : "view";
    }

    may(role) {
        return isPaired() && roles.indexOf(this.role) >= roles.indexOf(role);
    }

    get isMine() {
        return this.#lease !== null;
    }

    get key() {
        return this.#lease?.key ?? "";
    }

    async pair(code) {
        const session = await post("session", { code });
        keepToken(session.token);
        this.#role = session.role;
        return session;
    }

    async unpair() {
        this.#lease = null;
        try {
            await remove("session", {});
        } finally {
            this.forget();
        }
    }

    /** After the end of the pairing. */
    forget() {
        keepToken(null);
        this.#role = null;
        this.#lose();
    }

    async take(takeOver) {
        this.#keep(await post("control", takeOver ? { takeOver } : {}));
    }

    async giveBack() {
        const { key } = this.#lease;
        this.#lease = null;
        await remove("control", { key });
    }

    /** Looks whether the picture shows another holder. */
    compare() {
        const holder = this.picture.state?.control;
        if (this.#lease && holder && holder.number > this.#lease.number)
            this.#lose();
        if (this.#lease && performance.now() - this.#renewedMs > leaseLimitMs && !document.hidden)
            this.#lose();
        if (!isPaired())
            this.#role = null;
    }

    #keep(lease) {
        this.#lease = lease;
        this.#renewedMs = performance.now();
    }

    #lose() {
        if (!this.#lease)
            return;
        const holder = this.picture.state?.control ?? null;
        const isTakenOver = holder !== null && holder.number > this.#lease.number;
        this.#lease = null;
        this.onLost(isTakenOver ? holder : null);
    }

    async #renew() {
        const lease = this.#lease;
        if (!lease || document.hidden)
            return;
        try {
            const renewed = await post("control", { key: lease.key });
            if (this.#lease === lease)
                this.#keep(renewed);
        } catch (error) {
            const isOver = error instanceof ApiError && !["network", "no-answer"].includes(error.code);
            if (isOver && this.#lease === lease)
                this.#lose();
        }
    }
}
