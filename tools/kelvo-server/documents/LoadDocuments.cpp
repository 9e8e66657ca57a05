#include "kelvo-server/documents/LoadDocuments.h"

#include <optional>

#include "kelvo-service/Documents.h"

namespace kelvo::server {

AppDocuments documentsFrom(const db::Rows& rows) {
  std::map<std::string, std::map<std::string, std::string>> texts;  // by application, then by name
  for (std::size_t row = 0; row < rows.size(); ++row) texts[rows.text(row, 0)][rows.text(row, 1)] = rows.text(row, 2);
  AppDocuments documents;
  for (const auto& [app, saved] : texts) {
    auto state = std::make_shared<service::ServiceState>();
    service::loadDocuments(*state, [&saved = saved](const std::string& name) {
      const auto found = saved.find(name);
      return found == saved.end() ? std::nullopt : std::optional(found->second);
    });
    documents.emplace(app, std::move(state));
  }
  return documents;
}

}  // namespace kelvo::server
