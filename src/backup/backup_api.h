#pragma once
// The backup endpoints. Every one is for administrators (the route table says so; the gate
// refuses everyone else).

#include "base/result.h"
#include "handler/context.h"
#include "http/request.h"
#include "http/response.h"

namespace quill::backup {

using http::Request;
using http::Response;

// POST /api/backup/init: checks the body and the mode, probes the bucket, writes backup.key (0600)
// and backup.json, and answers the key once. Shared mode uses the build-storage bucket (rill.json)
// under "backups/".
Response initBackups(const Request& req, Context& ctx);

// POST /api/backup: 202 and a run on its own thread; 503 with the loader's text; 409 while a run
// is active.
Response startBackup(const Request& req, Context& ctx);

// GET /api/backups: configuration (without credentials), running flag, last outcome, schedule and
// the snapshots with their file counts and sizes.
Response backupStatus(const Request& req, Context& ctx);

// PUT /api/backup/config: replaces the given schedule members.
Response setBackupSchedule(const Request& req, Context& ctx);

// DELETE /api/backup/config: removes backup.json only; the key file and the snapshots stay.
Response forgetBackupConfig(const Request& req, Context& ctx);

}  // namespace quill::backup
