// Requests to the gateway. A failure is an ApiError, whose code has a text.
import { hasText, text } from "./i18n.js";

const answerLimitMs = 8000;

export class ApiError extends Error {
    constructor(code, detail = {}) {
        super(code);
        this.code = code;
        this.control = detail.control ?? null;
        this.detail = detail.text ?? "";
    }

    /** What happened, for people. */
    get words() {
        if (hasText(`error.${this.code}`))
            return text(`error.${this.code}`);
        return this.detail || text("error.unknown", { code: this.code });
    }
}

// The storage of the tab: a reload keeps the pairing, because tablets reload pages that were in the background.
// It ends with the tab, and no request carries it by itself, unlike a cookie.
const tokenName = "gripper-gateway-token";
let token = readToken();

function readToken() {
    try {
        return sessionStorage.getItem(tokenName);
    } catch {
        return null;
    }
}

export const isPaired = () => token !== null;

export function keepToken(value) {
    token = value;
    try {
        if (value === null)
            sessionStorage.removeItem(tokenName);
        else
            sessionStorage.setItem(tokenName, value);
    } catch {
        // Without storage the pairing ends with the next reload.
    }
}

/** The URL relative to the page, so that a reverse proxy may serve the page below a path. */
const urlOf = (route) => new URL(`api/v1/${route}`, document.baseURI);

async function failureOf(response) {
    try {
        const { error } = await response.json();
        return new ApiError(error.code, error);
    } catch {
        return new ApiError(String(response.status));
    }
}

async function send(route, { method = "GET", body, signal, keepalive } = {}) {
    const headers = {};
    const sentToken = token;
    if (sentToken !== null)
        headers.Authorization = `Bearer ${sentToken}`;
    if (method !== "GET")
        headers["Content-Type"] = "application/json";
    let response;
    try {
        response = await fetch(urlOf(route), {
            method,
            headers,
            body: body === undefined ? undefined : JSON.stringify(body),
            signal,
            keepalive,
            cache: "no-store",
            credentials: "omit",
        });
    } catch (error) {
        throw new ApiError(error.name === "TimeoutError" ? "no-answer" : "network");
    }
    if (response.ok)
        return response;
    const failure = await failureOf(response);
    if (failure.code === "unpaired" && token === sentToken)
        keepToken(null);
    throw failure;
}

async function exchange(route, options) {
    const response = await send(route, { ...options, signal: AbortSignal.timeout(answerLimitMs) });
    if (response.status === 204)
        return null;
    try {
        return await response.json();
    } catch {
        throw new ApiError("no-answer");
    }
}

export const get = (route) => exchange(route, {});
export const post = (route, body) => exchange(route, { method: "POST", body });
export const remove = (route, body) => exchange(route, { method: "DELETE", body });
/** A DELETE that survives the end of the page. */
export const removeAtEnd = (route, body) =>
    send(route, { method: "DELETE", body, keepalive: true }).catch(() => {});
/** The response whose body the caller reads for as long as `signal` allows. */
export const open = (route, signal) => send(route, { signal });
