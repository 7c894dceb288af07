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
        const forAll = this.#reasonForAll();
        const forScan = forAll || this.#reasonForScan() || this.#reasonForControl();
        const forGripper = forAll || this.#reasonForGripper(this.picture.gripper(chosenId));
        const forMaintainer = forGripper || (this.control.may("maintain") ? "" : "maintenance.lock.role");
        const reasons = { scan: forScan, operate: forGripper, maintain: forMaintainer };
        for (const control of this.controls)
            control.disabled = reasons[control.dataset.needs] !== "";
        this.#explain("command-lock", forGripper);
        this.#explain("maintenance-lock", forGripper === "" ? forMaintainer : "");
    }

    #explain(id, reason) {
        setText(byId(id), reason === "" ? "" : text(reason));
    }

    #reasonForAll() {
        if (!this.control.isPaired)
            return "command.lock.unpaired";
        if (!this.control.may("operate"))
            return "command.lock.role";
        if (this.picture.isSilent)
            return "command.lock.line";
        return this.maintenance.running ? "command.lock.busy" : "";
    }

    #reasonForControl() {
        if (this.control.isMine)
            return "";
        return this.picture.state.control ? "command.lock.other" : "command.lock.control";
    }

    /** A scan works while the line is gone. */
    #reasonForScan() {
        return ["no-daemon", "upgrading"].includes(this.picture.state.line.state) ? "command.lock.line" : "";
    }

    #reasonForGripper(gripper) {
        if (this.picture.state.line.state !== "connected")
            return "command.lock.line";
        return this.#reasonForControl() || (gripper?.present ? "" : "command.lock.missing");
    }
}
