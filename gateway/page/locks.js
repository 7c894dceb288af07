// Which controls work now, and why the others do not.
import { byId, setText } from "./dom.js";
import { text } from "./i18n.js";

export class Locks {
    constructor(picture, control, maintenance) {
        this.picture = picture;
        this.control = control;
        this.maintenance = maintenance;
        this.controls = [...document.querySelectorAll("[data-needs]")];
    }

    render(chosenId) {
        const forLine = this.#reasonForLine();
        const forGripper = forLine || this.#reasonForGripper(this.picture.gripper(chosenId));
        const forMaintainer = forGripper || (this.control.may("maintain") ? "" : "maintenance.lock.role");
        const reasons = { scan: forLine, operate: forGripper, maintain: forMaintainer };
        for (const control of this.controls)
            control.disabled = reasons[control.dataset.needs] !== "";
        this.#explain("command-lock", forGripper);
        this.#explain("maintenance-lock", forGripper === "" ? forMaintainer : "");
    }

    #explain(id, reason) {
        setText(byId(id), reason === "" ? "" : text(reason));
    }

    #reasonForLine() {
        if (!this.control.isPaired)
            return "command.lock.unpaired";
        if (!this.control.may("operate"))
            return "command.lock.role";
        if (this.picture.isSilent || ["no-daemon", "upgrading"].includes(this.picture.state.line.state))
            return "command.lock.line";
        if (!this.control.isMine)
            return "command.lock.control";
        return this.maintenance.running ? "command.lock.busy" : "";
    }

    #reasonForGripper(gripper) {
        if (gripper === null || !gripper.present)
            return "command.lock.missing";
        return this.picture.state.line.state === "connected" ? "" : "command.lock.line";
    }
}
