// The samples of one gripper, in the columns that the chart draws.
export class Samples {
    #t = [];
    #position = [];
    #request = [];
    #current = [];

    constructor(keptSeconds) {
        this.keptSeconds = keptSeconds;
    }

    clear() {
        this.#set([], [], [], []);
    }

    /** Puts the answer of the history before the samples that are newer. */
    fill({ t, position, request, current }) {
        const end = t.at(-1) ?? -Infinity;
        const from = this.#t.findIndex((time) => time > end);
        const newer = (column) => (from < 0 ? [] : column.slice(from));
        this.#set([...t, ...newer(this.#t)], [...current, ...newer(this.#current)],
            [...position, ...newer(this.#position)], [...request, ...newer(this.#request)]);
    }

    /** `gripper` is null while there are no new values: the curves have a gap. */
    add(clock, gripper) {
        if (clock <= (this.#t.at(-1) ?? -Infinity))
            return;
        this.#t.push(clock);
        this.#position.push(gripper?.position ?? null);
        this.#request.push(gripper?.echo ?? null);
        this.#current.push(gripper?.current ?? null);
        const old = this.#t.findIndex((time) => time >= clock - this.keptSeconds);
        // In blocks, because each removal moves all columns.
        if (old > 500)
            this.#set(...[this.#t, this.#current, this.#position, this.#request].map((column) => column.slice(old)));
    }

    /** The columns, with the last values held until `clock` unless they are old. */
    upTo(clock, isOld) {
        const columns = [this.#t, this.#current, this.#position, this.#request];
        if (isOld || this.#t.length === 0 || clock <= this.#t.at(-1))
            return columns;
        return columns.map((column, index) => [...column, index === 0 ? clock : column.at(-1)]);
    }

    #set(t, current, position, request) {
        this.#t = t;
        this.#position = position;
        this.#request = request;
        this.#current = current;
    }
}
