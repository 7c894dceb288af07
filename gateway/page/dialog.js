// The one dialog of the page: it asks, and the promise is the answer.
import { byId, element } from "./dom.js";
import { text } from "./i18n.js";

let fieldNumber = 0;

/** A field of a dialog: an input, or a select if `options` are given. */
function fieldOf({ label, options, kind, attributes = {} }) {
    const id = `dialog-field-${++fieldNumber}`;
    const input = options
        ? element("select", { id }, ...options.map((option) => element("option", { value: option }, String(option))))
        : element("input", { id, type: "text", autocomplete: "off", autocapitalize: "characters", spellcheck: "false", ...attributes });
    const field = element("div", { class: `field ${kind ?? ""}` }, element("label", { for: id }, label), input);
    return { field, input };
}

/** The page behind an open dialog takes no touches, but Stop must. */
function takeStopBarInto(dialog) {
    const stopBar = byId("stop-bar");
    const focused = document.activeElement;
    dialog.append(stopBar);
    return () => {
        document.body.prepend(stopBar);
        // The move takes the focus away from the buttons of the bar.
        if (stopBar.contains(focused))
            focused.focus();
    };
}

/** Cancels the dialog that is open, if any. */
export async function dismiss() {
    const dialog = byId("dialog");
    if (!dialog.open)
        return;
    const closed = new Promise((resolve) => dialog.addEventListener("close", resolve, { once: true }));
    dialog.close();
    await closed;
}

/**
 * Shows the dialog. `accept` gets the texts of the fields and returns an error text, which keeps the dialog open, or
 * nothing. Resolves to whether the engineer accepted.
 */
export function ask({ title, body, fields = [], acceptText, danger = false, accept = () => "" }) {
    const dialog = byId("dialog");
    if (dialog.open)
        return Promise.resolve(false);
    const parts = fields.map(fieldOf);
    const acceptButton = byId("dialog-accept");
    byId("dialog-title").textContent = title;
    byId("dialog-text").textContent = body;
    byId("dialog-fields").replaceChildren(...parts.map(({ field }) => field));
    byId("dialog-fields").hidden = parts.length === 0;
    byId("dialog-error").textContent = "";
    byId("dialog-cancel").textContent = text("dialog.cancel");
    acceptButton.textContent = acceptText;
    acceptButton.className = danger ? "danger" : "primary";
    acceptButton.removeAttribute("aria-busy");
    return new Promise((resolve) => {
        const ended = new AbortController();
        let answer = false;
        const submit = async (event) => {
            event.preventDefault();
            if (acceptButton.hasAttribute("aria-busy"))
                return;
            acceptButton.setAttribute("aria-busy", "true");
            const problem = await accept(parts.map(({ input }) => input.value.trim()));
            // Stop may have dismissed this dialog, and the element may show another one.
            if (ended.signal.aborted)
                return;
            acceptButton.removeAttribute("aria-busy");
            if (problem) {
                byId("dialog-error").textContent = problem;
                parts[0]?.input.focus();
                return;
            }
            answer = true;
            dialog.close();
        };
        const { signal } = ended;
        byId("dialog-form").addEventListener("submit", submit, { signal });
        byId("dialog-cancel").addEventListener("click", () => dialog.close(), { signal });
        const returnStopBar = takeStopBarInto(dialog);
        dialog.addEventListener("close", () => {
            ended.abort();
            returnStopBar();
            resolve(answer);
        }, { signal });
        dialog.showModal();
        (parts[0]?.input ?? byId("dialog-cancel")).focus();
    });
}
