#!/usr/bin/env python3
"""Runs each question of docs/questions.md on the demo data and compares the result with the printed one.

usage: scripts/postgres exec --fast tests/server/questions.py [--write]

--write puts the present results into the page. Needs an empty database, which libpq's environment names.
"""
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
PAGE = ROOT / "docs/questions.md"
QUESTIONS = 10
BLOCK = re.compile(r"```sql\n(.*?)```\n\n```text\n(.*?)```", re.DOTALL)


def psql(*arguments, text=None):
    """Returns what psql prints. Raises CalledProcessError on an SQL error."""
    command = ["psql", "-X", "-q", "-v", "ON_ERROR_STOP=1", "-P", "pager=off", *arguments]
    done = subprocess.run(command, input=text, capture_output=True, text=True)
    if done.returncode != 0:
        raise SystemExit(f"{text or arguments}\n{done.stderr}")
    return "".join(line.rstrip() + "\n" for line in done.stdout.splitlines() if line.strip())


def main():
    page = PAGE.read_text()
    for file in sorted((ROOT / "tools/kelvo-server/schema").glob("*.sql")):
        psql("-1", "-f", str(file))
    psql("-f", str(ROOT / "tools/kelvo-server/demo/demo.sql"))
    psql(text="SELECT kelvo_count_days();")

    results = [(sql, printed, psql(text=sql)) for sql, printed in BLOCK.findall(page)]
    if sys.argv[1:] == ["--write"]:
        for sql, printed, result in results:
            page = page.replace(f"{sql}```\n\n```text\n{printed}```", f"{sql}```\n\n```text\n{result}```")
        PAGE.write_text(page)
        return 0
    asked = len(re.findall(r"^## \d+\.", page, re.MULTILINE))
    if asked != QUESTIONS or not asked <= len(results) == page.count("```sql"):
        raise SystemExit(f"{PAGE}: {asked} questions, {page.count('```sql')} times SQL, {len(results)} results")
    wrong = [f"{sql}\nprinted:\n{printed}\nresult:\n{result}" for sql, printed, result in results if printed != result]
    print("\n\n".join(wrong) or f"{len(results)} results, all as printed")
    return 1 if wrong else 0


sys.exit(main())
