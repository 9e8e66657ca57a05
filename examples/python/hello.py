"""The smallest useful host in Python: it starts the library, logs one event, and sends it.

Start `kelvo-collector` in one terminal, and this program in another:
  KELVO_SERVER_BASE_URL=http://127.0.0.1:8288 python3 hello.py
"""

import kelvo

# Call this once, at the start. It returns at once; the library starts in the background.
kelvo.start("hello")
# Tell the library that the user is using the application now, and below, that the user leaves.
kelvo.did_become_active()

# Attributes of the user are sent with every chunk of events; attributes of an event belong to that event only.
kelvo.set_user_attributes(plan="gold")
kelvo.log("Greeting", language="en", words=2)

kelvo.will_resign_active()
# Wait until the service has everything. Without this call, the next launch sends what is still stored.
result = kelvo.flush(5.0)
if not result.delivered:
    print("not delivered:", result.reason)
