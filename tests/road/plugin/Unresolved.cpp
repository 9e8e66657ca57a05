// A plug-in's shared object that nobody can load for good: what it calls is defined nowhere.

extern "C" void kelvo_defined_nowhere();
extern "C" void kelvo_called_some_day();

void kelvo_called_some_day() {
  kelvo_defined_nowhere();
}
