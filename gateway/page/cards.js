// A card for every gripper.
import { element, reconcile, setAttribute, setData, setText } from "./dom.js";
import { duration, text } from "./i18n.js";

/** The gateway marks the commands of other programs for as long. */
const foreignJobSeconds = 10;

const shown = (value) => (value === null ? text("value.none") : String(value));

function valueBox(name, key) {
    return element("div", { "data-box": name }, element("dt", {}, text(key)), element("dd", {}));
}

function createCard(id, onChoose) {
    const choose = element("button", { type: "button", class: "small" });
    choose.addEventListener("click", () => onChoose(id));
    const card = element("article", { class: "card", "aria-labelledby": `card-${id}` },
        element("div", { class: "card-head" },
            element("span", { class: "id", "aria-hidden": "true" }, String(id)),
            element("div", { class: "who" },
                element("h3", { id: `card-${id}` },
                    element("span", { class: "hidden" }, text("card.gripper", { id }) + " "),
                    element("span", { "data-part": "name" })),
                element("p", {}, ...["serial", "firmware", "year"].map((part) => element("span", { "data-part": part })))),
            choose),
        element("p", { class: "foreign", "data-part": "note" }),
        element("div", { class: "reading" },
            element("span", {}, element("strong", { "data-part": "position" }), " ",
                element("span", { class: "unit" }, text("card.of"))),
            element("span", { class: "state", "data-part": "state" })),
        element("div", {},
            element("div", { class: "bar", role: "meter", "aria-valuemin": "0", "aria-valuemax": "255",
                "aria-label": text("card.bar", { id }) },
                element("div", { class: "track" }, element("div", { class: "fill" })),
                element("div", { class: "mark request" }), element("div", { class: "mark echo" })),
            element("div", { class: "ends" },
                element("span", { "data-part": "low" }),
                element("b", { class: "request-key" }, "▼ ", element("span", { "data-part": "request" })),
                element("b", { class: "echo-key" }, "▲ ", element("span", { "data-part": "echo" })),
                element("span", { "data-part": "high" }))),
        element("dl", { class: "values" },
            valueBox("current", "card.current"), valueBox("object", "card.object"),
            valueBox("use", "card.cycles"), valueBox("fault", "card.fault")));
    card.parts = Object.fromEntries([...card.querySelectorAll("[data-part]")].map((part) => [part.dataset.part, part]));
    card.boxes = Object.fromEntries([...card.querySelectorAll("[data-box]")].map((box) => [box.dataset.box, box]));
    card.choose = choose;
    card.bar = card.querySelector(".bar");
    card.fill = card.querySelector(".fill");
    card.marks = { request: card.querySelector(".request"), echo: card.querySelector(".echo") };
    return card;
}

/** The state in a word, and its kind for the colour. */
function stateOf(gripper) {
    if (!gripper.present)
        return ["missing", "missing"];
    if (gripper.moving)
        return ["moving", "working"];
    const status = gripper.status ?? "unknown";
    return [status, { active: "active", activating: "working", releasing: "working" }[status] ?? "off"];
}

export function faultText(fault) {
    if (fault === null)
        return text("card.fault.none");
    return fault.text === null ? text("card.fault.code", fault) : text("card.fault.text", fault);
}

/** The object detection or the vacuum in a word. */
function holdText(gripper) {
    if (gripper.kind === "vacuum")
        return gripper.vacuum === null ? text("value.none") : text(`vacuum.${gripper.vacuum}`);
    return gripper.object === null ? text("value.none") : text(`object.${gripper.object}`);
}

function pumpText({ pumpSeconds }) {
    return pumpSeconds === null ? text("value.none") : duration(pumpSeconds);
}

function fillBox(card, name, value) {
    setText(card.boxes[name].lastChild, value);
}

function placeMark(mark, value) {
    mark.hidden = value === null;
    if (value !== null)
        mark.style.left = `${(value / 255) * 100}%`;
}

function fillPosition(card, gripper) {
    const isVacuum = gripper.kind === "vacuum";
    const words = { position: shown(gripper.position), request: shown(gripper.request), echo: shown(gripper.echo) };
    setText(card.parts.position, words.position);
    setText(card.parts.request, text("card.request", { n: words.request }));
    setText(card.parts.echo, text("card.echo", { n: words.echo }));
    setText(card.parts.low, text(isVacuum ? "card.none" : "card.open"));
    setText(card.parts.high, text(isVacuum ? "card.full" : "card.closed"));
    setAttribute(card.bar, "aria-valuenow", String(gripper.position ?? 0));
    setAttribute(card.bar, "aria-valuetext", text("card.bar.text", words));
    card.fill.style.transform = `scaleX(${(gripper.position ?? 0) / 255})`;
    placeMark(card.marks.request, gripper.request);
    placeMark(card.marks.echo, gripper.echo);
}

function fillValues(card, gripper) {
    const isVacuum = gripper.kind === "vacuum";
    fillBox(card, "current", shown(gripper.current));
    setText(card.boxes.object.firstChild, text(isVacuum ? "card.vacuum" : "card.object"));
    fillBox(card, "object", holdText(gripper));
    setText(card.boxes.use.firstChild, text(isVacuum ? "card.pump" : "card.cycles"));
    fillBox(card, "use", isVacuum ? pumpText(gripper) : shown(gripper.cycles));
    fillBox(card, "fault", faultText(gripper.fault));
    card.boxes.fault.classList.toggle("alarm", gripper.fault !== null);
}

/** The last command that another page of this gateway gave, if it is recent. */
function foreignJob(gripper, picture, jobs) {
    const isRecent = (job) => job.state === "running" || picture.jobAge(job) - job.elapsedSeconds < foreignJobSeconds;
    return picture.state.jobs.findLast((job) => [gripper.id, null].includes(job.gripper) && isRecent(job) && jobs.isForeign(job));
}

function noteOf(gripper, picture, jobs) {
    if (!gripper.present && gripper.missingSeconds !== null)
        return text("card.missing", { age: duration(picture.age(gripper.missingSeconds)) });
    if (gripper.commandedByOther)
        return text("card.foreign", { age: duration(picture.age(gripper.otherCommandAgeSeconds ?? 0)) });
    const job = foreignJob(gripper, picture, jobs);
    return job ? text("card.other-page", { role: text(`role.${job.role}`), action: text(`action.${job.action}`) }) : "";
}

function fillCard(card, gripper, picture, jobs, { isChosen, isOnly }) {
    const kind = text(`card.kind.${gripper.kind}`);
    const family = gripper.family || text("card.unknown");
    setText(card.parts.name, text("card.name", { family, kind }));
    for (const part of ["serial", "firmware", "year"])
        setText(card.parts[part], shown(gripper[part]));
    const [state, stateKind] = stateOf(gripper);
    setText(card.parts.state, text(`status.${state}`));
    setData(card.parts.state, "kind", stateKind);
    setData(card, "chosen", String(isChosen));
    setData(card, "old", String(picture.isStale(gripper)));
    card.choose.hidden = isOnly;
    setText(card.choose, text(isChosen ? "card.chosen" : "card.choose"));
    setAttribute(card.choose, "aria-pressed", String(isChosen));
    setAttribute(card.choose, "aria-label", text(isChosen ? "card.chosen.label" : "card.choose.label", { id: gripper.id }));
    fillPosition(card, gripper);
    fillValues(card, gripper);
    setText(card.parts.note, noteOf(gripper, picture, jobs));
}

export class Cards {
    constructor(parent, jobs, onChoose) {
        this.parent = parent;
        this.jobs = jobs;
        this.onChoose = onChoose;
    }

    render(picture, chosenId) {
        const grippers = picture.state?.grippers ?? [];
        const cards = reconcile(this.parent, grippers.map(({ id }) => id), (id) => createCard(id, this.onChoose));
        cards.forEach((card, index) =>
            fillCard(card, grippers[index], picture, this.jobs,
                { isChosen: grippers[index].id === chosenId, isOnly: grippers.length === 1 }));
    }
}
