// Server-sent events, read from the body of a fetch: EventSource can neither send the token nor notice silence.

/** Splits the text of a stream into messages. `push` returns those that are complete. */
export class EventParser {
    #rest = "";
    #event = "message";
    #data = [];

    push(chunk) {
        const lines = (this.#rest + chunk).split("\n");
        this.#rest = lines.pop();
        const messages = [];
        for (const line of lines)
            this.#take(line.endsWith("\r") ? line.slice(0, -1) : line, messages);
        return messages;
    }

    #take(line, messages) {
        if (line === "") {
            if (this.#data.length)
                messages.push({ event: this.#event, data: this.#data.join("\n") });
            this.#event = "message";
            this.#data = [];
            return;
        }
        const colon = line.indexOf(":");
        const field = colon < 0 ? line : line.slice(0, colon);
        const value = colon < 0 ? "" : line.slice(colon + 1).replace(/^ /, "");
        if (field === "event")
            this.#event = value;
        else if (field === "data")
            this.#data.push(value);
    }
}
