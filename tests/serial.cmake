# These tests run alone, because other tests at the same time could make them exceed a time limit.
#
# The exit hook waits half a second at most until all events are stored.
set_tests_properties(road.Road.ANormalExitRightAfterAThousandCallsStoresThemAll PROPERTIES RUN_SERIAL TRUE)
# An exit must end within about a second.
foreach(way main thread sink post atOnce duringTheStart upload)
  set_tests_properties(manners.Ways/Exit.EndsTheProcessInAboutASecondWithTheHostsStatusAndTheFarewell/${way}
                       PROPERTIES RUN_SERIAL TRUE)
endforeach()
