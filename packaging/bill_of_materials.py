#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""bill_of_materials.py FOLDER: writes FOLDER/ks-VERSION.spdx.json, an SPDX 2.3 document of the packages in FOLDER: each
with its digest and what it needs, and the packages that they were built with. The same packages give the same bytes."""
import datetime
import glob
import hashlib
import json
import os
import re
import subprocess
import sys


def fields_of(text):
    """The fields of a Debian control paragraph."""
    fields = {}
    for line in text.splitlines():
        if line[:1].isspace():
            fields[name] += line
        elif ":" in line:
            name, value = line.split(":", 1)
            fields[name] = value.strip()
    return fields


def identifier(*parts):
    return "SPDXRef-" + re.sub(r"[^A-Za-z0-9.-]", "-", "-".join(parts))


def other_package(name, version=None):
    package = {
        "SPDXID": identifier("Debian", name, version or ""),
        "name": name,
        "downloadLocation": "NOASSERTION",
        "filesAnalyzed": False,
    }
    if version:
        package["versionInfo"] = version
        package["externalRefs"] = [{
            "referenceCategory": "PACKAGE-MANAGER",
            "referenceType": "purl",
            "referenceLocator": f"pkg:deb/debian/{name}@{version}",
        }]
    return package


def main(folder):
    packages, others, relations = [], {}, []
    for path in sorted(glob.glob(os.path.join(folder, "*.deb"))):
        fields = fields_of(subprocess.check_output(["dpkg-deb", "-f", path], text=True))
        with open(path, "rb") as file:
            digest = hashlib.sha256(file.read()).hexdigest()
        own = identifier(fields["Package"], fields["Architecture"])
        packages.append({
            "SPDXID": own,
            "name": fields["Package"],
            "versionInfo": fields["Version"],
            "packageFileName": os.path.basename(path),
            "downloadLocation": "NOASSERTION",
            "filesAnalyzed": False,
            "licenseConcluded": "Apache-2.0",
            "licenseDeclared": "Apache-2.0",
            "copyrightText": "2026 The ks developers",
            "checksums": [{"algorithm": "SHA256", "checksumValue": digest}],
        })
        relations.append(("SPDXRef-DOCUMENT", "DESCRIBES", own))
        for needed in re.split(r"\s*[,|]\s*", fields.get("Depends", "")):
            name = needed.split(" ")[0].split(":")[0]
            if name:
                others.setdefault((name, None), other_package(name))
                relations.append((own, "DEPENDS_ON", others[name, None]["SPDXID"]))
    for path in sorted(glob.glob(os.path.join(folder, "*.buildinfo"))):
        with open(path, encoding="utf-8") as file:
            fields = fields_of(file.read())
        for name, version in re.findall(r"([a-z0-9][^\s,]*) \(= ([^)]+)\)", fields["Installed-Build-Depends"]):
            others.setdefault((name, version), other_package(name, version))
            for package in packages:
                relations.append((others[name, version]["SPDXID"], "BUILD_TOOL_OF", package["SPDXID"]))
    version = packages[0]["versionInfo"]
    digest = hashlib.sha256("".join(p["checksums"][0]["checksumValue"] for p in packages).encode()).hexdigest()
    time = int(os.environ["SOURCE_DATE_EPOCH"])
    document = {
        "spdxVersion": "SPDX-2.3",
        "dataLicense": "CC0-1.0",
        "SPDXID": "SPDXRef-DOCUMENT",
        "name": f"ks-{version}",
        "documentNamespace": f"urn:sha256:{digest}",
        "creationInfo": {
            "created": datetime.datetime.fromtimestamp(time, datetime.timezone.utc).strftime("%Y-%m-%dT%H:%M:%SZ"),
            "creators": ["Tool: bill_of_materials.py", "Organization: The ks developers"],
        },
        "packages": packages + sorted(others.values(), key=lambda package: package["SPDXID"]),
        "relationships": [{"spdxElementId": a, "relationshipType": kind, "relatedSpdxElement": b}
                          for a, kind, b in sorted(set(relations))],
    }
    with open(os.path.join(folder, f"ks-{version}.spdx.json"), "w", encoding="utf-8") as file:
        json.dump(document, file, indent=1)
        file.write("\n")


if __name__ == "__main__":
    main(sys.argv[1])
