// Kestrel's live-activity extension for pi and omp (they share the extension interface),
// installed by `kestrel hooks install pi|omp` and removed by `kestrel hooks uninstall pi|omp`.
//
// While Kestrel's gate file for the agent exists, it writes one small JSON pulse file per session
// into Kestrel's live folder whenever the agent starts working, uses a tool, finishes or fails.
// The session id is written only as a salted SHA-256 digest; the working folder and the project
// name only when the user lets Kestrel keep project names. Nothing goes to the network, and no
// failure here may disturb the agent: every step swallows its errors. No import of the agent's
// own package, so that the same file loads in both agents.

import { createHash } from "node:crypto";
import {
  existsSync,
  mkdirSync,
  readFileSync,
  readdirSync,
  renameSync,
  statSync,
  unlinkSync,
  writeFileSync,
} from "node:fs";
import { basename, join } from "node:path";

const LIVE_DIR = "__KS_LIVE_DIR__";
const SOURCE = "__KS_SOURCE__";
const HOOK_GATE = "__KS_HOOK_GATE__";
const SALT_FILE = "__KS_SESSION_SALT_FILE__";
const CAPTURE_PROJECT = "__KS_CAPTURE_PROJECT__" === "1";
const HOOK_VERSION = 1;
const DAY_MS = 24 * 60 * 60 * 1000;

type State = "processing" | "idle" | "awaiting";
type Notice = "completed" | "permission" | "question" | "failed";

// The little of the extension context this file uses.
interface Context {
  cwd?: string;
  sessionManager?: { getSessionId?: () => string | undefined };
}
interface Api {
  on(event: string, handler: (event: any, ctx: Context) => unknown): void;
}

function sessionKey(sessionID: string): string | null {
  const salt = readFileSync(SALT_FILE, "utf8").split("\n")[0];
  if (!salt) return null;
  return createHash("sha256").update(`${salt}\n${SOURCE}\n${sessionID}`).digest("hex");
}

// A run starts with a prompt; every other report keeps the start the session already has.
function startedAt(file: string, now: number, hint?: string): number {
  if (hint === "prompt") return now;
  try {
    const previous = JSON.parse(readFileSync(file, "utf8"));
    if (Number.isFinite(previous.started_at)) return previous.started_at;
  } catch {}
  return now;
}

// Pulses of sessions that ended a day ago and temporary files of a crash: the folder stays small.
function prune(): void {
  try {
    const now = Date.now();
    for (const name of readdirSync(LIVE_DIR)) {
      if (!name.endsWith(".json") && !name.endsWith(".tmp")) continue;
      const path = join(LIVE_DIR, name);
      if (now - statSync(path).mtimeMs > DAY_MS) unlinkSync(path);
    }
  } catch {}
}

function pulse(ctx: Context, state: State, extra: { notice?: Notice; hint?: string } = {}): void {
  try {
    const sessionID = ctx?.sessionManager?.getSessionId?.();
    if (typeof sessionID !== "string" || sessionID === "" || !existsSync(HOOK_GATE)) return;
    const key = sessionKey(sessionID);
    if (!key) return;
    mkdirSync(LIVE_DIR, { recursive: true });
    const file = join(LIVE_DIR, `${SOURCE}-${key.slice(0, 32)}.json`);
    const now = Math.floor(Date.now() / 1000);
    const record: Record<string, unknown> = {
      format_version: 1,
      source: SOURCE,
      state,
      session_key: key,
      pid: process.pid,
      at: now,
      started_at: startedAt(file, now, extra.hint),
      evidence: "hook",
      precision: "exact",
      hook_version: HOOK_VERSION,
    };
    if (CAPTURE_PROJECT && typeof ctx.cwd === "string" && ctx.cwd !== "") {
      record.cwd = ctx.cwd;
      record.project = basename(ctx.cwd);
    }
    if (extra.notice) record.notice = extra.notice;
    if (extra.hint) record.hint = extra.hint;
    const temporary = join(LIVE_DIR, `.${SOURCE}-${process.pid}-${key.slice(0, 8)}.tmp`);
    writeFileSync(temporary, JSON.stringify(record) + "\n");
    renameSync(temporary, file);
    if (state === "idle") prune();
  } catch {}
}

// An agent run that ended on an error: its last assistant message says so.
function endedInError(event: any): boolean {
  const messages = Array.isArray(event?.messages) ? event.messages : [];
  for (let i = messages.length - 1; i >= 0; i--) {
    if (messages[i]?.role === "assistant") {
      return messages[i].stopReason === "error" || messages[i].stopReason === "aborted";
    }
  }
  return false;
}

export default function (pi: Api) {
  pi.on("session_start", (_event, ctx) => pulse(ctx, "idle"));
  pi.on("agent_start", (_event, ctx) => pulse(ctx, "processing", { hint: "prompt" }));
  pi.on("tool_call", (_event, ctx) => pulse(ctx, "processing"));
  pi.on("tool_result", (_event, ctx) => pulse(ctx, "processing"));
  pi.on("agent_end", (event, ctx) =>
    pulse(ctx, "idle", { notice: endedInError(event) ? "failed" : "completed" }),
  );
  pi.on("session_shutdown", (_event, ctx) => pulse(ctx, "idle"));
}
