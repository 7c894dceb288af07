// The commands for the chosen gripper. Only a press of a button moves it; the dials move nothing.
import { byId, reconcile, setAttribute, setData, setText, element } from "./dom.js";
import { ask, dismiss } from "./dialog.js";
import { text } from "./i18n.js";

const dials = ["position", "speed", "force"];

export class Commands {
    #id = null;
    /** The dials of each gripper, as the engineer left them. */
    #kept = new Map();

    constructor(picture, control, jobs) {
        this.picture = picture;
        this.control = control;
        this.jobs = jobs;
        for (const name of dials)
            this.#connect(byId(name), byId(`${name}-number`));
        const press = (id, work) => byId(id).addEventListener("click", work);
        press("go", () => this.#go());
        press("open", () => this.#move(byId("open"), 0));
        press("close", () => this.#move(byId("close"), 255));
        press("activate", () => this.#activate());
        press("release", () => this.#release());
        byId("move").addEventListener("submit", (event) => event.preventDefault());
        for (const button of document.querySelectorAll("[data-led]"))
            button.addEventListener("click", () => this.#send(button, "led", ledBody(button.dataset.led)));
        for (const button of document.querySelectorAll("[data-mode]"))
            button.addEventListener("click", () => this.#send(button, "mode", { mode: Number(button.dataset.mode) }));
    }

    choose(id) {
        if (this.#id !== null)
            this.#kept.set(this.#id, dials.map((name) => byId(`${name}-number`).value));
        this.#id = id;
        const gripper = this.picture.gripper(id);
        const values = this.#kept.get(id) ??
            [gripper?.echo ?? gripper?.position ?? 0, gripper?.speed ?? 0, gripper?.force ?? 0];
        dials.forEach((name, index) => {
            byId(name).value = values[index];
            byId(`${name}-number`).value = values[index];
        });
    }

    render(picture) {
        const gripper = picture.gripper(this.#id);
        const isVacuum = gripper?.kind === "vacuum";
        setText(byId("command-title"), gripper ? text("command.title", { id: gripper.id }) : text("command.none"));
        setText(byId("activate"), text(needsAgain(gripper) ? "command.again" : "command.activate"));
        setText(byId("position-label"), text(isVacuum ? "command.level" : "command.position"));
        const isValid = dials.every((name) => byId(`${name}-number`).checkValidity());
        setText(byId("go"), isValid ? text("command.go", { n: byId("position-number").value }) : text("command.go.invalid"));
        for (const button of document.querySelectorAll("[data-led]"))
            setAttribute(button, "aria-pressed", String(gripper !== null && ledOf(gripper.led, button.dataset.led)));
        for (const button of document.querySelectorAll("[data-mode]"))
            setAttribute(button, "aria-pressed", String(gripper?.mode === Number(button.dataset.mode)));
    }

    #connect(range, number) {
        range.addEventListener("input", () => (number.value = range.value));
        number.addEventListener("input", () => {
            if (number.checkValidity())
                range.value = number.value;
        });
        // The key of a screen keyboard moves nothing: the Go button does.
        number.addEventListener("keydown", (event) => {
            if (event.key === "Enter") {
                event.preventDefault();
                byId("go").focus();
            }
        });
    }

    #send(button, action, body) {
        return this.jobs.command(button, action, this.#id, { lease: this.control.key, ...body });
    }

    #value(name) {
        return Number(byId(`${name}-number`).value);
    }

    #move(button, position) {
        if (byId("speed-number").checkValidity() && byId("force-number").checkValidity())
            this.#send(button, "move", { position, speed: this.#value("speed"), force: this.#value("force") });
    }

    #go() {
        if (byId("position-number").checkValidity())
            this.#move(byId("go"), this.#value("position"));
    }

    async #activate() {
        const id = this.#id;
        const again = needsAgain(this.picture.gripper(id));
        if (again && !(await ask({ title: text("command.again.title", { id }), body: text("command.again.text"),
            acceptText: text("command.again.accept"), danger: true })))
            return;
        this.jobs.command(byId("activate"), "activate", id, { lease: this.control.key, ...(again ? { again } : {}) });
    }

    async #release() {
        const id = this.#id;
        if (await ask({ title: text("command.release.title", { id }), body: text("command.release.text"),
            acceptText: text("command.release.accept"), danger: true }))
            this.jobs.command(byId("release"), "release", id, { lease: this.control.key });
    }
}

/** An active gripper lets go when it is activated again. */
const needsAgain = (gripper) => gripper !== null && (gripper.active || gripper.fault !== null);

function ledBody(name) {
    if (name === "auto")
        return { auto: true };
    return { red: name === "red", green: name === "green", blue: name === "blue" };
}

function ledOf({ auto, red, green, blue }, name) {
    if (auto || name === "auto")
        return auto && name === "auto";
    const lit = { red, green, blue };
    return name === "off" ? !(red || green || blue) : lit[name];
}

/** Stop of every gripper, always one touch away: its button says what it does. It needs no lease. */
export class StopBar {
    constructor(control, jobs, pair) {
        this.control = control;
        this.jobs = jobs;
        this.pair = pair;
        this.parent = byId("stops");
    }

    render(picture, chosenId) {
        const grippers = picture.state?.grippers ?? [];
        const buttons = reconcile(this.parent, grippers.map(({ id }) => id), (id) => this.#create(id));
        buttons.forEach((button, index) => {
            const gripper = grippers[index];
            setData(button, "chosen", String(gripper.id === chosenId));
            setText(button.note, text(`stop.note.${gripper.kind}`));
        });
    }

    #create(id) {
        const note = element("small");
        const button = element("button", { type: "button", "data-stops": "true" },
            element("span", { class: "square", "aria-hidden": "true" }), element("span", {}, text("stop.button", { id })), note);
        button.note = note;
        button.addEventListener("click", () => this.#stop(button, id));
        return button;
    }

    async #stop(button, id) {
        if (!this.control.may("operate")) {
            await dismiss();
            this.pair(text("pair.stop"));
            return;
        }
        this.jobs.command(button, "stop", id, {}, (reason) => text("stop.failed", { id, reason }));
    }
}
