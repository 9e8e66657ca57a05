#include "records/KLVUUID.h"

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

namespace kelvo {

std::string randomUUIDString() {
  return boost::algorithm::to_upper_copy(boost::uuids::to_string(boost::uuids::random_generator()()),
                                         std::locale::classic());
}

}  // namespace kelvo
