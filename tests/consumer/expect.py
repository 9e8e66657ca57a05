"""Reads the collector's requests. Fails unless the consumer's event arrived, with the version and id in its bundle."""
import json
import sys

chunks = [r["body"] for r in json.load(sys.stdin)["requests"] if r["path"].endswith("/chunks")]
events = [e for c in chunks for e in c["chunk_details"]["app_events"] if e["name"] == "Consumed"]
apps = [c["app_info"] for c in chunks]
assert events, chunks
assert events[0]["additional_info"]["linked"] in (True, 1), events
assert apps[0]["app_version"] == "1.2(34)", apps
assert apps[0]["bundle_id"] == "org.example.consumer", apps
