// The login page.

const $ = (id) => document.getElementById(id);

$("plain").hidden = location.protocol === "https:";
$("login").onsubmit = async (event) => {
    event.preventDefault();
    $("said").textContent = "…";
    try {
        const response = await fetch("/login", {method: "POST",
            headers: {"Content-Type": "application/json", "X-Beacon": "1"},
            body: JSON.stringify({password: $("password").value})});
        if (response.ok) {
            location.replace("/");
            return;
        }
        $("said").textContent = (await response.json()).error;
    } catch {
        $("said").textContent = "The console does not answer.";
    }
    $("password").select();
};
