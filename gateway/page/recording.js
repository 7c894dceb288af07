// The recording as CSV, with the columns of "gripperctl record", so that "gripperctl plot" draws it.

const header = "time,seconds,gripper,position,requested,current,object,fault,link";
const objectWords = { none: "-", moving: "moving", met: "object", reached: "reached" };

/** The object detection in the words of gripperctl. */
export function objectWord(gripper) {
    if (gripper.object === "met" && gripper.kind === "vacuum")
        return "leak";
    return objectWords[gripper.object] ?? "";
}

/** `at` is a time such as 2024-05-17T09:30:00.125+02:00. Returns it `seconds` later, with the same offset. */
export function timeText(at, seconds) {
    const offset = at.match(/(Z|[+-]\d\d:\d\d)$/)[1];
    const [, sign, hours, minutes] = offset.match(/([+-])(\d\d):(\d\d)/) ?? [null, "+", 0, 0];
    const offsetMs = (sign === "-" ? -1 : 1) * (hours * 60 + Number(minutes)) * 60000;
    const local = new Date(Date.parse(at) + Math.round(seconds * 1000) + offsetMs);
    return local.toISOString().slice(0, -1) + (offset === "Z" ? "+00:00" : offset);
}

/** Keeps the values that the gateway's history lacks, for as long as the history lasts. */
export class Notes {
    #notes = new Map();

    take(gripper, clock, lineText) {
        const notes = this.#notes.get(gripper.id) ?? [];
        this.#notes.set(gripper.id, notes);
        const note = { clock, object: objectWord(gripper), fault: String(gripper.fault?.code ?? 0), link: lineText };
        const last = notes.at(-1);
        if (!last || last.object !== note.object || last.fault !== note.fault || last.link !== note.link)
            notes.push(note);
        while (notes.length > 1 && notes[1].clock < clock - 600)
            notes.shift();
    }

    forget() {
        this.#notes.clear();
    }

    /** A function that returns the note that was valid at a time. Call it with ascending times. */
    reader(id) {
        const notes = this.#notes.get(id) ?? [];
        let next = 0;
        return (clock) => {
            while (next < notes.length && notes[next].clock <= clock)
                ++next;
            return notes[next - 1] ?? null;
        };
    }
}

function rowsOf(history, notes) {
    const noteAt = notes.reader(history.gripper);
    let isOutage = false;
    return history.t.flatMap((clock, index) => {
        const note = noteAt(clock);
        const wasOutage = isOutage;
        isOutage = history.position[index] === null;
        if (isOutage && wasOutage)
            return [];
        const time = timeText(history.at, clock - history.clock);
        const values = isOutage
            ? ["", "", "", "", "", outageWord(note)]
            : [history.position[index], history.request[index] ?? "", history.current[index] ?? "",
                note?.object ?? "", note?.fault ?? "", "RUNNING"];
        return [{ clock, id: history.gripper, time, values }];
    });
}

function outageWord(note) {
    const word = (note?.link ?? "").replaceAll(/[,\r\n]/g, " ");
    return word === "" || word === "RUNNING" ? "NO_CONNECTION" : word;
}

/** `histories` are answers of the gateway. Each outage has one line without values. */
export function csvOf(histories, notes) {
    const rows = histories.flatMap((history) => rowsOf(history, notes));
    rows.sort((a, b) => a.clock - b.clock || a.id - b.id);
    const start = rows[0]?.clock ?? 0;
    const lines = rows.map(({ clock, id, time, values }) =>
        [time, (clock - start).toFixed(3), id, ...values].join(","));
    return [header, ...lines, ""].join("\n");
}
