// Requests to the console, and small helpers of the page.

export const $ = (id) => document.getElementById(id);

export class Refused extends Error {
    constructor(answer, status) {
        super(answer.error ?? "The console refused this.");
        this.status = status;
        this.fields = answer.fields ?? {};
    }
}

async function send(method, path, value) {
    const options = {method};
    if (value !== undefined) {
        options.body = JSON.stringify(value);
        options.headers = {"Content-Type": "application/json", "X-Beacon": "1"};
    }
    let response;
    try {
        response = await fetch(`/api/v1/${path}`, options);
    } catch {
        throw new Refused({error: "The console does not answer."});
    }
    const answer = await response.json().catch(() => ({}));
    if (response.status === 401) {
        location.replace("/login");
    }
    if (!response.ok) {
        throw new Refused(answer, response.status);
    }
    return answer;
}

export const get = (path) => send("GET", path);
export const put = (path, value) => send("PUT", path, value);
export const post = (path, value = {}) => send("POST", path, value);

// Does something and says in the element how it went.
export async function tell(element, work, done = "") {
    element.textContent = "…";
    try {
        const said = await work();
        element.textContent = typeof said === "string" ? said : done;
    } catch (error) {
        element.textContent = error.message;
    }
}

// Asks; resolves to true for yes. While another question is open the answer is no.
export function ask(text) {
    const dialog = $("question");
    if (dialog.open) {
        return Promise.resolve(false);
    }
    $("question-text").textContent = text;
    dialog.showModal();
    return new Promise((resolve) => {
        const answer = (yes) => {
            resolve(yes);
            dialog.close();
        };
        $("yes").onclick = () => answer(true);
        $("no").onclick = () => answer(false);
        dialog.oncancel = () => resolve(false);
    });
}

export function make(tag, properties = {}, ...children) {
    const element = Object.assign(document.createElement(tag), properties);
    element.append(...children);
    return element;
}
