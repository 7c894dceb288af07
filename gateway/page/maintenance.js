// Scan, new id and upgrade, with their progress.
import { byId, element, reconcile, setData, setText } from "./dom.js";
import { ask } from "./dialog.js";
import { duration, text } from "./i18n.js";
import { adviceText, outcomeText } from "./jobs.js";

/** The ids that a scan looks for. */
const scannedIds = [9, 2, 3, 4];
const actions = ["scan", "rename", "upgrade"];
const stages = ["begin", "jumping", "writing", "searching"];

export class Maintenance {
    #id = null;

    constructor(picture, control, jobs) {
        this.picture = picture;
        this.control = control;
        this.jobs = jobs;
        byId("scan").addEventListener("click", () => jobs.command(byId("scan"), "scan", null, { lease: control.key }));
        byId("rename").addEventListener("click", () => this.#rename());
        byId("upgrade").addEventListener("click", () => this.#upgrade());
    }

    choose(id) {
        this.#id = id;
    }

    /** The job that has the line, or null. */
    get running() {
        const running = (this.picture.state?.jobs ?? []).filter(({ action, state }) => actions.includes(action) && state === "running");
        return running.at(-1) ?? null;
    }

    render(picture) {
        const job = (picture.state?.jobs ?? []).filter(({ action }) => actions.includes(action)).at(-1) ?? null;
        byId("job").hidden = job === null;
        if (job)
            this.#showJob(job);
    }

    #showJob(job) {
        const action = text(`action.${job.action}`);
        setText(byId("job-title"), job.gripper === null ? text("job.scan") : text("job.title", { action, id: job.gripper }));
        const isRunning = job.state === "running";
        const passed = isRunning && job.arrivedMs !== undefined ? (performance.now() - job.arrivedMs) / 1000 : 0;
        setText(byId("job-elapsed"), text("job.elapsed", { age: duration(job.elapsedSeconds + passed) }));
        this.#showStages(job);
        const shown = isRunning ? "" : JSON.stringify([job.id, job.outcome]);
        if (byId("job-outcome").dataset.shown !== shown) {
            byId("job-outcome").dataset.shown = shown;
            byId("job-outcome").replaceChildren(...(isRunning ? [] : [outcomeOf(job)]));
        }
    }

    #showStages(job) {
        const names = job.action === "upgrade" ? stages : [];
        const present = job.state === "done" ? stages.length : Math.max(0, stages.indexOf(job.stage ?? "begin"));
        const items = reconcile(byId("job-stages"), names, () => element("li"));
        items.forEach((item, index) => {
            setText(item, text(`job.stage.${names[index]}`));
            const now = job.state === "failed" ? "failed" : "now";
            setData(item, "state", index < present ? "done" : index === present ? now : "later");
        });
        byId("job-stages").hidden = names.length === 0;
    }

    /** Asks with the serial number, and sends the command. The dialog stays open while something is wrong. */
    async #confirm({ id, action, title, body, acceptText, fields, bodyOf }) {
        const serial = this.picture.gripper(id)?.serial;
        await ask({
            title, body, acceptText, danger: true,
            fields: [{ label: text("maintenance.serial") }, ...fields],
            accept: async ([typed, ...values]) => {
                if (typed.toUpperCase() !== serial?.toUpperCase())
                    return text("maintenance.serial.wrong", { id });
                try {
                    await this.jobs.send(action, id, { lease: this.control.key, serial, ...bodyOf(...values) });
                    return "";
                } catch (error) {
                    this.jobs.say(error.words ?? String(error), "bad");
                    return error.words ?? String(error);
                }
            },
        });
    }

    #rename() {
        const gripper = this.picture.gripper(this.#id);
        const used = this.picture.state.grippers.filter(({ present }) => present).map(({ id }) => id);
        const free = scannedIds.filter((id) => !used.includes(id));
        if (free.length === 0) {
            this.jobs.say(text("rename.none"), "bad");
            return;
        }
        this.#confirm({
            id: gripper.id, action: "rename", title: text("rename.title", gripper), body: text("rename.text", gripper),
            acceptText: text("rename.accept"), fields: [{ label: text("rename.id"), options: free }],
            bodyOf: (newId) => ({ newId: Number(newId) }),
        });
    }

    #upgrade() {
        const gripper = this.picture.gripper(this.#id);
        this.#confirm({
            id: gripper.id, action: "upgrade", title: text("upgrade.title", gripper), body: text("upgrade.text", gripper),
            acceptText: text("upgrade.accept"), fields: [{ label: text("upgrade.expected") }],
            bodyOf: (expected) => (expected === "" ? {} : { expected }),
        });
    }
}

function outcomeOf(job) {
    const box = element("div", { class: "outcome", "data-kind": job.state === "done" ? "good" : "bad" },
        element("strong", {}, outcomeText(job)));
    if (job.state === "failed") {
        const advice = adviceText(job);
        box.append(...[job.outcome.text, advice].filter((line) => line !== "").map((line) => element("p", {}, line)));
    }
    return box;
}
