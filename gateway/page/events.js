// The latest events of the line.
import { element, reconcile, setText } from "./dom.js";
import { firstText, text } from "./i18n.js";
import { faultText } from "./cards.js";

const shownEvents = 8;

function wordsOf({ kind, gripper, code, detail }) {
    const state = kind === "fault" ? faultText({ code, text: detail }) : kind === "link" ? firstText([`line.${detail}`, "value.none"]) : detail;
    return firstText([`event.${kind}.${detail}`, `event.${kind}`], { id: gripper, detail: state });
}

export class EventList {
    constructor(parent) {
        this.parent = parent;
    }

    render(picture) {
        const events = (picture.state?.events ?? []).slice(-shownEvents).reverse();
        const items = reconcile(this.parent, events.map(({ number }) => number),
            () => element("li", {}, element("time"), element("span")));
        items.forEach((item, index) => {
            const event = events[index];
            // The clock of the gateway, without its date and its fractions.
            setText(item.firstChild, event.at.slice(11, 19));
            setText(item.lastChild, wordsOf(event));
        });
        this.parent.nextElementSibling.hidden = events.length > 0;
        setText(this.parent.nextElementSibling, text("events.none"));
    }
}
