// The state of the line as the gateway last reported it, and how old it is. Ages count on the monotonic clock of
// the browser from the arrival of a message: the wall clock of a tablet may jump.

/** The sign of life comes once a second. */
export const silenceLimitMs = 3000;

export class Picture {
    #arrivedMs = 0;
    #pictureMs = 0;

    constructor(nowMs = () => performance.now()) {
        this.nowMs = nowMs;
        this.state = null;
        /** The stream runs. */
        this.live = false;
    }

    /** Takes a whole picture. Returns whether the gateway has restarted. */
    replace(state) {
        const before = this.state?.gateway.instance;
        const arrivedMs = this.nowMs();
        this.state = { ...state, jobs: state.jobs.map((job) => ({ ...job, arrivedMs })) };
        this.#pictureMs = arrivedMs;
        this.#arrived();
        return before !== undefined && before !== state.gateway.instance;
    }

    change({ clock, at, line, grippers, removed, control }) {
        const state = this.state;
        const gone = new Set([...removed, ...grippers.map(({ id }) => id)]);
        // Ages of grippers that did not change count on.
        const passed = clock - state.clock;
        const kept = state.grippers.filter(({ id }) => !gone.has(id)).map((gripper) => aged(gripper, passed));
        Object.assign(state, { clock, at, line, control });
        state.grippers = [...kept, ...grippers].sort((a, b) => a.id - b.id);
        this.#arrived();
    }

    takeJob(job) {
        const jobs = this.state.jobs.filter(({ id }) => id !== job.id);
        this.state.jobs = [...jobs, { ...job, arrivedMs: this.nowMs() }].slice(-50);
    }

    takeEvent(event) {
        if (!this.state.events.some(({ number }) => number === event.number))
            this.state.events = [...this.state.events, event].slice(-50);
    }

    #arrived() {
        this.#arrivedMs = this.nowMs();
        this.live = true;
    }

    /** Seconds since the last message. */
    get silence() {
        return (this.nowMs() - this.#arrivedMs) / 1000;
    }

    get isSilent() {
        return !this.live || this.silence * 1000 > silenceLimitMs;
    }

    /** The gateway's clock now. */
    get clock() {
        return this.state.clock + this.silence;
    }

    /** An age of the last message, now. */
    age(seconds) {
        return seconds === null ? null : seconds + this.silence;
    }

    /** A remaining time of the last whole picture, now. */
    sincePicture(secondsLeft) {
        return secondsLeft - (this.nowMs() - this.#pictureMs) / 1000;
    }

    /** Seconds since the start of a job, now. */
    jobAge(job) {
        return job.ageSeconds + (this.nowMs() - job.arrivedMs) / 1000;
    }

    isStale(gripper) {
        return this.isSilent || this.state.line.stale || gripper.stale || !gripper.present;
    }

    gripper(id) {
        return this.state?.grippers.find((gripper) => gripper.id === id) ?? null;
    }
}

function aged(gripper, passed) {
    const later = (age) => (age === null ? null : age + passed);
    return {
        ...gripper,
        missingSeconds: later(gripper.missingSeconds),
        otherCommandAgeSeconds: later(gripper.otherCommandAgeSeconds),
    };
}
