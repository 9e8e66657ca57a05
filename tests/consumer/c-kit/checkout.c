#include "checkout.h"

#include <kelvo/kelvo.h>

void run_checkout(void) {
  kelvo_show("Basket", NULL);
  kelvo_log_app_event_json("Purchase", "{\"item\": \"book\", \"price\": 12.5}", 0);
  kelvo_show("thanks", "Thank you");
}
