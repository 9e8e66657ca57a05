"""Reads the collector's requests. Fails unless the attributes that the consumer in QML has set arrived, with their types."""
import json
import sys

chunks = [r["body"] for r in json.load(sys.stdin)["requests"] if r["path"].endswith("/chunks")]
events = {e["name"]: e.get("additional_info") for c in chunks for e in c["chunk_details"]["app_events"]}
assert "Greeted" in events, events
expected = {"linked": True, "item": "book", "price": 12.5, "tags": ["new", 2], "of": '{"page":7}'}
info = {key: value for key, value in events["Consumed"].items() if not key.startswith("klv_")}
assert info == expected, info
counts = [c["chunk_details"].get("agg_events") for c in chunks]
assert [{"name": "Scroll", "count": 1, "attributes": {"page": [["home", 1]]}}] in counts, counts
users = [c["chunk_details"].get("user_attributes") for c in chunks]
assert {"custom_user_id": "ann", "plan": "gold"} in users, users
sessions = [c["session_info"].get("additional_info") for c in chunks]
assert {"table": 7} in sessions, sessions
