#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""site.py OUT: makes the site of documents from the pages in docs/, the headers and the manual, and checks its links.

Nothing on it is loaded from elsewhere: it reads the same from a disk without a network.
"""

import html.parser
import re
import shutil
import subprocess
import sys
from pathlib import Path
from urllib.parse import unquote, urlsplit

import interface
import man

ROOT = man.ROOT

# The pages, by heading, in the order in which they are offered. A page of docs/ that stands nowhere is an error.
PAGES = {
    "Start": ["index.md", "tutorial.md"],
    "Programs": ["conventions.md", "helpers.md", "ks.hpp.md", "codes.md", "differences.md", "mistakes.md", "python.md",
                 "examples.md"],
    "Functions": [],  # of the headers
    "Operating": ["operating.md", "fleet.md", "ksctl.md", "troubleshooting.md", "security.md", "ksd.toml.md",
                  "supplicant.md", "freeradius.md", "ppp.md"],
    "Manual": [],  # of man/
    "Formats": ["wire.md", "vault-format.md", "fleet-format.md", "cache-format.md", "backup-format.md"],
    "Platform": ["porting.md"],
    "Project": ["architecture.md", "testing.md", "benchmarks.md", "dependencies.md", "stability.md", "contributing.md",
                "changelog.md", "news.md", "reporting.md", "license.md"],
}
# What lies outside docs/, by where links point to: the page that it becomes.
ELSEWHERE = {
    "README.md": "index.md",
    "CONTRIBUTING.md": "contributing.md",
    "CHANGELOG.md": "changelog.md",
    "NEWS.md": "news.md",
    "NEWS": "news.md",
    "SECURITY.md": "reporting.md",
    "LICENSE": "license.md",
    "contrib/supplicant/README.md": "supplicant.md",
    "contrib/freeradius/README.md": "freeradius.md",
    "contrib/ppp/README.md": "ppp.md",
    "examples": "examples.md",
    "include/ks.hpp": "ks.hpp.md",
    "service/ksd.toml": "ksd.toml.md",
}
LANGUAGES = {name: name for name in ("c", "cpp", "python", "sh", "sql", "toml")}


def page_for(target):
  """The page that a link to a file of the repository leads to; None where it stays as it is."""
  if target.startswith("docs/"):
    return target[len("docs/"):]
  if target.startswith(("include/", "helpers/include/")) and target.endswith(".h"):
    return f"api/{Path(target).stem}.md"
  return ELSEWHERE.get(target.rstrip("/"))


def staged(text, folder):
  """A page's text with links that lead within the site, and blocks that the site's Markdown knows."""

  def link(match):
    target, anchor = (match[2].split("#", 1) + [""])[:2]
    if "://" in target or not target:
      return match[0]
    path = (Path(folder) / target).as_posix()
    parts = []
    for part in path.split("/"):
      if part == "..":
        parts.pop()
      elif part != ".":
        parts.append(part)
    page = page_for("/".join(parts))
    if page is None:
      return match[1]  # what isn't on the site is named and not linked
    return f"[{match[1]}]({page}{'#' + anchor if anchor else ''})"

  text = re.sub(r"(?<!!)\[([^\]]+)\]\(([^)\s]+)\)", link, text)
  # What stands behind a block's language is for the tests.
  return re.sub(r"^```(\w+)(?: [^\n]*)?$", lambda match: "```" + LANGUAGES.get(match[1], "text"), text, flags=re.M)


def code_page(title, intro, path, language):
  return f"# {title}\n\n{intro}\n\n```{language}\n{path.read_text().rstrip()}\n```\n"


def markdown(text):
  return re.sub(r"\b((?:ksh?|sksd)_\w+|kserr2str)\b(?![^`]*`(?:[^`]*`[^`]*`)*[^`]*$)", r"`\1`", text)


def api_page(path, functions):
  lines = [f"# {path.name}", ""] + [paragraph + "\n" for paragraph in interface.about(path)]
  for function in functions:
    lines += [f"## {function.name}", "", "```c", interface.wrapped_signature(function.signature, 78), "```", ""]
    lines += [markdown(paragraph) + "\n" for paragraph in function.text]
    if function.base is not None:
      lines += [f"What it says of [{function.base.name}](#{function.base.name.lower()}) holds here too.", ""]
    if function.results:
      lines += ["| result | when |", "|---|---|"]
      lines += [f"| {codes} | {markdown(when[:1].upper() + when[1:]).replace('|', chr(92) + '|')} |"
                for codes, when in function.results]
      lines.append("")
    lines += [f"**Note.** {markdown(note[:1].upper() + note[1:])}\n" for note in function.notes]
  return "\n".join(lines) + "\n"


def manual_page(source, pages):
  made = subprocess.run(["mandoc", "-T", "html", "-O", "fragment", str(pages / source)], capture_output=True, text=True,
                        check=True).stdout
  name, section = source.rsplit(".", 1)
  return f"# {name}({section})\n\n<div class=\"manual\" markdown=\"0\">\n{made}</div>\n"


def stage(folder, pages):
  """Writes all pages into the folder; gives the navigation."""
  docs = folder / "docs"
  (docs / "api").mkdir(parents=True)
  (docs / "man").mkdir()
  for path in sorted((ROOT / "docs").rglob("*")):
    if path.suffix == ".md":
      (docs / path.name).write_text(staged(path.read_text(), "docs"))
    elif path.suffix in (".svg", ".png", ".html"):
      target = docs / path.relative_to(ROOT / "docs")
      target.parent.mkdir(parents=True, exist_ok=True)
      shutil.copy(path, target)
  for source, page in ELSEWHERE.items():
    path = ROOT / source
    if path.suffix == ".md" and path.is_file():
      (docs / page).write_text(staged(path.read_text(), Path(source).parent.as_posix()))
    elif source in ("LICENSE", "NEWS") and path.is_file():
      (docs / page).write_text(code_page(source.capitalize(), "", path, "text"))
  (docs / "ksd.toml.md").write_text(
      code_page("ksd.toml", "The configuration as it ships, with every default.", ROOT / "service/ksd.toml", "toml"))
  (docs / "ks.hpp.md").write_text(
      code_page("ks.hpp", "The header for C++ programs, as it ships.", ROOT / "include/ks.hpp", "cpp"))
  examples = ["# Examples\n\nEach is one file and one program.\n"]
  for path in sorted((ROOT / "examples").glob("*.c*")):
    if path.suffix in (".c", ".cc"):
      examples.append(f"## {path.name}\n\n```{'c' if path.suffix == '.c' else 'cpp'}\n{path.read_text().rstrip()}\n```\n")
  (docs / "examples.md").write_text("\n".join(examples))

  navigation = {heading: [page for page in names if (docs / page).is_file()] for heading, names in PAGES.items()}
  for path, functions in interface.read_interface(ROOT).items():
    page = f"api/{path.stem}.md"
    (docs / page).write_text(api_page(path, functions))
    navigation["Functions"].append(page)
  for source in sorted(path.name for path in pages.glob("*.[1578]")):
    page = f"man/{source}.md"
    (docs / page).write_text(manual_page(source, pages))
    navigation["Manual"].append(page)
  offered = {page for names in navigation.values() for page in names}
  missing = {path.relative_to(docs).as_posix() for path in docs.rglob("*.md")} - offered
  if missing:
    raise SystemExit(f"site.py: {', '.join(sorted(missing))}: stands under no heading; put it into PAGES")
  return navigation


def title_of(path):
  return re.search(r"^# (.+)$", path.read_text(), re.M)[1]


def configuration(folder, navigation, out):
  lines = ["site_name: ks", "site_description: The client library of a keystore service, and what stands around it",
           "docs_dir: docs", f"site_dir: {out}", "use_directory_urls: false", "theme:", "  name: material",
           "  font: false", "  features: [navigation.tabs, navigation.top, toc.follow]", "  palette:",
           "    - media: '(prefers-color-scheme: light)'", "      scheme: default", "      primary: indigo",
           "    - media: '(prefers-color-scheme: dark)'", "      scheme: slate", "      primary: indigo",
           "extra_css: [site.css]", "plugins: [search]", "markdown_extensions:", "  - tables", "  - fenced_code",
           "  - md_in_html", "  - toc: {permalink: true}", "  - pymdownx.highlight: {use_pygments: true}",
           "  - pymdownx.superfences", "nav:"]
  for heading, names in navigation.items():
    if names:
      lines.append(f"  - {heading}:")
      lines += [f"    - {quoted(title_of(folder / 'docs' / name))}: {name}" for name in names]
  (folder / "mkdocs.yml").write_text("\n".join(lines) + "\n")
  shutil.copy(Path(__file__).with_name("site.css"), folder / "docs/site.css")


def quoted(text):
  return "'" + text.replace("'", "''") + "'"


class Page(html.parser.HTMLParser):
  """What a page links to, loads, and offers as places to link to."""

  def __init__(self, path):
    super().__init__()
    self.links, self.loads, self.places = [], [], set()
    self.feed(path.read_text())

  def handle_starttag(self, tag, attributes):
    attributes = dict(attributes)
    if "id" in attributes:
      self.places.add(attributes["id"])
    if tag == "a" and attributes.get("href"):
      self.links.append(attributes["href"])
    if tag in ("script", "img", "iframe") and attributes.get("src"):
      self.loads.append(attributes["src"])
    if tag == "link" and attributes.get("href") and attributes.get("rel") in ("stylesheet", "icon", "preload"):
      self.loads.append(attributes["href"])


def check(site):
  """Every link leads somewhere, and nothing is loaded from elsewhere."""
  pages = {path: Page(path) for path in sorted(site.rglob("*.html")) if path.name != "404.html"}
  faults = []
  for path, page in pages.items():
    for link in page.loads + page.links:
      address = urlsplit(link)
      if address.scheme or address.netloc:
        if link in page.loads:
          faults.append(f"{path.relative_to(site)} loads {link}")
        continue
      target = (path.parent / unquote(address.path)).resolve() if address.path else path
      if target.is_dir():
        target = target / "index.html"
      if not target.is_file():
        faults.append(f"{path.relative_to(site)} links to {link}, which isn't there")
      elif address.fragment and target in pages and unquote(address.fragment) not in pages[target].places:
        faults.append(f"{path.relative_to(site)} links to {link}, and the page has no such place")
  if faults:
    raise SystemExit("\n".join(["site.py: " + fault for fault in faults]))
  return len(pages)


def main():
  out = Path(sys.argv[1]).resolve()
  work = out.parent / (out.name + ".work")
  shutil.rmtree(work, ignore_errors=True)
  work.mkdir(parents=True)
  pages = work / "man"
  pages.mkdir()
  man.write_functions(pages)
  man.write_others(pages)
  configuration(work, stage(work, pages), out)
  made = subprocess.run(["mkdocs", "build", "--quiet", "--strict", "--clean", "-f", str(work / "mkdocs.yml")],
                        capture_output=True, text=True, check=False)
  if made.returncode != 0:
    raise SystemExit(f"site.py: mkdocs says\n{made.stderr}")
  print(f"{out}/index.html: {check(out)} pages, every link checked")
  shutil.rmtree(work)


if __name__ == "__main__":
  main()
