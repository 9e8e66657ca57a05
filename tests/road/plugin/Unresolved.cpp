// A plug-in's shared object that cannot be loaded: it calls a function that no library defines.

extern "C" void kelvo_defined_nowhere();
extern "C" void kelvo_called_some_day();

void kelvo_called_some_day() {
  kelvo_defined_nowhere();
}
