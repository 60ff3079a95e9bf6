#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""schemas_check.py BUILD: what each command of ksctl prints with --json is what its schema says.

tools/ksctl/schemas/COMMAND.json is the schema of a command ("secret put" is secret-put), and schemas/COMMAND.sh beside
this file runs the command over a service of its own, whose administrator the caller is: each line that it prints has to
be a document by the schema. Commands that need a fleet have no run here. A command without either of the two fails the test, and so does a schema that lets anything
pass.
"""

import json
import os
import re
import subprocess
import sys
import tempfile
from pathlib import Path

try:
    import jsonschema
except ImportError:
    print("skipped: python3-jsonschema isn't installed")
    sys.exit(77)

# Commands that need a fleet. tests/fleet/fleet_test.py holds their documents to the schemas.
OF_FLEETS = {"fleet-import", "fleet-restore", "fleet-accept", "fleet-list", "fleet-leave", "fleet-rotate"}

HERE = Path(__file__).resolve().parent
SCHEMAS = HERE.parent.parent / "tools" / "ksctl" / "schemas"
RUNS = HERE / "schemas"


def commands(ksctl, words=()):
    """All commands below `words`, as the help lists them."""
    text = subprocess.run([ksctl, *words, "--help"], check=True, capture_output=True, text=True).stdout
    listed = re.search(r"^Subcommands:\n((?:  .*\n?)*)", text, re.MULTILINE)
    if not listed:
        return ["-".join(words)]
    names = re.findall(r"^  (\S+)", listed.group(1), re.MULTILINE)
    return [command for name in names for command in commands(ksctl, (*words, name))]


def open_objects(schema, place="the document"):
    """Where a schema lets any key pass, or doesn't say that a key has to be there."""
    if isinstance(schema, list):
        return [found for part in schema for found in open_objects(part, place)]
    if not isinstance(schema, dict):
        return []
    found = []
    if "properties" in schema:
        if schema.get("additionalProperties") is not False:
            found.append(f"{place}: additionalProperties isn't false")
        if not schema.get("required"):
            found.append(f"{place}: nothing is required")
    for key, part in schema.items():
        inner = part if key in ("properties", "$defs") else {key: part} if isinstance(part, (dict, list)) else {}
        for name, below in inner.items():
            found += open_objects(below, f"{place}, {name}")
    return found


def faults_of(command, build):
    schema_file, run = SCHEMAS / f"{command}.json", RUNS / f"{command}.sh"
    needed = (schema_file,) if command in OF_FLEETS else (schema_file, run)
    missing = [str(path) for path in needed if not path.exists()]
    if missing:
        return [f"there is no {path}" for path in missing]
    schema = json.loads(schema_file.read_text())
    validator_class = jsonschema.validators.validator_for(schema, default=None)
    if validator_class is None:
        return ["the schema doesn't name its $schema"]
    validator_class.check_schema(schema)
    faults = open_objects(schema)
    if command in OF_FLEETS:
        return faults
    validator = validator_class(schema)
    with tempfile.TemporaryDirectory() as folder:
        environment = {**os.environ, "PATH": f"{build}:{os.environ['PATH']}"}
        done = subprocess.run([f"{build}/ks-session", "--", "bash", "-eu", str(run)], cwd=folder, env=environment,
                              stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=120)
    if done.returncode != 0:
        faults.append(f"the run ended with status {done.returncode}: {done.stderr.strip()}")
    lines = done.stdout.splitlines()
    if not lines:
        faults.append(f"the run printed nothing: {done.stderr.strip()}")
    for line in lines:
        try:
            document = json.loads(line)
        except ValueError as error:
            faults.append(f"{error}: {line}")
            continue
        for error in validator.iter_errors(document):
            faults.append(f"{error.json_path}: {error.message}\n    {line}")
    return faults


def main():
    build = str(Path(sys.argv[1]).resolve())
    known = commands(f"{build}/ksctl")
    stray = {path.stem for path in [*SCHEMAS.glob("*.json"), *RUNS.glob("*.sh")]} - set(known)
    status = 0
    for command in known:
        for fault in faults_of(command, build):
            print(f"{command.replace('-', ' ')}: {fault}")
            status = 1
    for name in sorted(stray):
        print(f"{name}: there is no such command")
        status = 1
    return status


if __name__ == "__main__":
    sys.exit(main())
