# The exit hook waits half a second for the store, which a sanitizer build on a machine full of other tests may need
# for itself: this one runs alone.
set_tests_properties(road.Road.ANormalExitRightAfterAThousandCallsStoresThemAll PROPERTIES RUN_SERIAL TRUE)
# An exit has a second, by the clock on the wall.
foreach(way main thread sink post atOnce duringTheStart upload)
  set_tests_properties(manners.Ways/Exit.EndsTheProcessInAboutASecondWithTheHostsStatusAndTheFarewell/${way}
                       PROPERTIES RUN_SERIAL TRUE)
endforeach()
