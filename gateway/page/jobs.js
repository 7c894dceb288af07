// The commands of this page: sends them, and reports what became of them.
import { post } from "./api.js";
import { firstText, hasText, text } from "./i18n.js";

const doubleTapMs = 500;

/** The outcome of a job in words. */
export function outcomeText(job) {
    const { action, gripper, outcome } = job;
    const isVacuumLeak = outcome.object === "met" && job.isVacuum;
    const variants = {
        move: isVacuumLeak ? "leak" : outcome.object,
        scan: outcome.ids?.length === 0 ? "none" : undefined,
        upgrade: outcome.firmware ? undefined : "unknown",
    };
    const keys = [`outcome.${action}.${outcome.code}.${variants[action]}`, `outcome.${action}.${outcome.code}`,
        `outcome.${outcome.code}`, "outcome.unknown"];
    return firstText(keys, { action: text(`action.${action}`), id: gripper, code: outcome.code, ids: outcome.ids?.join(", "),
        position: outcome.position, firmware: outcome.firmware, fault: outcome.fault });
}

/** What to do after a failed job, or nothing. */
export function adviceText(job) {
    const keys = [`advice.${job.action}.${job.outcome.code}`, `advice.${job.action}`];
    return keys.some(hasText) ? firstText(keys) : "";
}

export class Jobs {
    #followed = new Map();
    #own = new Set();
    #sending = 0;
    #pressed = new Map();

    constructor(picture, say) {
        this.picture = picture;
        this.say = say;
    }

    /** Whether a press of `button` counts: not if it repeats one that is under way or just happened. */
    #counts(button) {
        const now = performance.now();
        const isDouble = now - (this.#pressed.get(button) ?? -Infinity) < doubleTapMs;
        if (isDouble || (button.getAttribute("aria-busy") === "true" && !button.dataset.stops))
            return false;
        this.#pressed.set(button, now);
        return true;
    }

    /** Runs `work` for a press of `button`. The button shows that it is under way, and ignores more presses. */
    async guard(button, work) {
        if (!this.#counts(button))
            return;
        button.setAttribute("aria-busy", "true");
        try {
            await work();
        } finally {
            button.removeAttribute("aria-busy");
        }
    }

    /** Sends a command and follows its job. Throws an ApiError if the gateway refuses it. */
    async send(action, id, body) {
        this.say(text(`sending.${action}`, { id, ...body }));
        const { job } = await this.#post(action === "scan" ? "scan" : `grippers/${id}/${action}`, body);
        this.#followed.set(job.id, job);
        this.say(text(`running.${action}`, { id }));
        if (job.state !== "running")
            this.#finish(job);
        this.look();
    }

    async #post(route, body) {
        ++this.#sending;
        try {
            const answer = await post(route, body);
            this.#own.add(answer.job.id);
            return answer;
        } finally {
            --this.#sending;
        }
    }

    /** Whether another page began the job. The stream may show a job of this page before its answer arrives. */
    isForeign(job) {
        return this.#sending === 0 && !this.#own.has(job.id);
    }

    /** As send, and shows a refusal. `failed(reason)` is its text. */
    async command(button, action, id, body, failed = (reason) => reason) {
        await this.guard(button, () =>
            this.send(action, id, body).catch((error) => this.say(failed(error.words ?? String(error)), "bad")));
    }

    /** Looks for jobs that have ended. */
    look() {
        for (const [id, sent] of this.#followed) {
            const job = this.picture.state?.jobs.find((one) => one.id === id);
            if (job && job.state !== "running")
                this.#finish(job);
            else if (job && job.action !== sent.action)
                this.#followed.delete(id);
        }
    }

    /** The gateway has restarted: no job of before has a result. */
    abandon() {
        for (const job of this.#followed.values())
            this.say(text("outcome.gone", { action: text(`action.${job.action}`) }), "bad");
        this.#followed.clear();
        this.#own.clear();
    }

    #finish(job) {
        this.#followed.delete(job.id);
        // The command that replaced it has its own message.
        if (job.outcome.code === "superseded" && this.#followed.size > 0)
            return;
        const isVacuum = this.picture.gripper(job.gripper)?.kind === "vacuum";
        this.say(outcomeText({ ...job, isVacuum }), job.state === "done" ? "good" : "bad", job.gripper);
    }
}
