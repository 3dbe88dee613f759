// Kestrel's live-activity plug-in for opencode, installed by `kestrel hooks install opencode`
// and removed by `kestrel hooks uninstall opencode`.
//
// While Kestrel's gate file for opencode exists, it writes one small JSON pulse file per session
// into Kestrel's live folder whenever the session starts working, asks for permission, finishes
// or fails. The session id is written only as a salted SHA-256 digest; the working folder and the
// project name only when the user lets Kestrel keep project names. Nothing goes to the network,
// and no failure here may disturb opencode: every step swallows its errors.

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

function sessionKey(sessionID) {
  const salt = readFileSync(SALT_FILE, "utf8").split("\n")[0];
  if (!salt) return null;
  return createHash("sha256").update(`${salt}\n${SOURCE}\n${sessionID}`).digest("hex");
}

// A run starts with a prompt; every other report keeps the start the session already has.
function startedAt(file, now, hint) {
  if (hint === "prompt") return now;
  try {
    const previous = JSON.parse(readFileSync(file, "utf8"));
    if (Number.isFinite(previous.started_at)) return previous.started_at;
  } catch {}
  return now;
}

// Pulses of sessions that ended a day ago and temporary files of a crash: the folder stays small.
function prune() {
  try {
    const now = Date.now();
    for (const name of readdirSync(LIVE_DIR)) {
      if (!name.endsWith(".json") && !name.endsWith(".tmp")) continue;
      const path = join(LIVE_DIR, name);
      if (now - statSync(path).mtimeMs > DAY_MS) unlinkSync(path);
    }
  } catch {}
}

function pulse(context, sessionID, state, extra = {}) {
  try {
    if (typeof sessionID !== "string" || sessionID === "" || !existsSync(HOOK_GATE)) return;
    const key = sessionKey(sessionID);
    if (!key) return;
    mkdirSync(LIVE_DIR, { recursive: true });
    const file = join(LIVE_DIR, `${SOURCE}-${key.slice(0, 32)}.json`);
    const now = Math.floor(Date.now() / 1000);
    const record = {
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
    const folder = context.worktree || context.directory;
    if (CAPTURE_PROJECT && typeof folder === "string" && folder !== "") {
      record.cwd = context.directory || folder;
      record.project = basename(folder);
    }
    if (extra.notice) record.notice = extra.notice;
    if (extra.hint) record.hint = extra.hint;
    const temporary = join(LIVE_DIR, `.${SOURCE}-${process.pid}-${key.slice(0, 8)}.tmp`);
    writeFileSync(temporary, JSON.stringify(record) + "\n");
    renameSync(temporary, file);
    if (state === "idle") prune();
  } catch {}
}

function sessionOf(properties) {
  if (!properties || typeof properties !== "object") return undefined;
  return properties.sessionID ?? properties.info?.id ?? properties.info?.sessionID;
}

export const KestrelLiveActivity = async (context) => {
  return {
    event: async ({ event }) => {
      const id = sessionOf(event?.properties);
      switch (event?.type) {
        case "session.created":
          pulse(context, id, "idle");
          break;
        case "session.status": {
          const status = event.properties?.status?.type;
          if (status === "busy" || status === "retry") pulse(context, id, "processing");
          break;
        }
        case "session.idle":
          pulse(context, id, "idle", { notice: "completed" });
          break;
        case "session.error":
          pulse(context, id, "idle", { notice: "failed" });
          break;
        case "permission.updated":
        case "permission.asked":
          pulse(context, id, "awaiting", { notice: "permission" });
          break;
        case "permission.replied":
          pulse(context, id, "processing");
          break;
        case "question.asked":
          pulse(context, id, "awaiting", { notice: "question" });
          break;
      }
    },
    "chat.message": async (input) => {
      pulse(context, input?.sessionID, "processing", { hint: "prompt" });
    },
    "tool.execute.before": async (input) => {
      pulse(context, input?.sessionID, "processing");
    },
    "tool.execute.after": async (input) => {
      pulse(context, input?.sessionID, "processing");
    },
  };
};
