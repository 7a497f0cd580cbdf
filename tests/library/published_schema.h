// A schema of schemas/, for tests that hold the core's rules against it.
#ifndef KELOTLS_TESTS_PUBLISHED_SCHEMA_H
#define KELOTLS_TESTS_PUBLISHED_SCHEMA_H

#include <json/value.h>

#include <valijson/adapters/jsoncpp_adapter.hpp>
#include <valijson/schema.hpp>
#include <valijson/schema_parser.hpp>
#include <valijson/validator.hpp>

#include <string>

#include "framework.h"

namespace kelotls::test {

/// Says of a value whether the schema of this name takes it.
class PublishedSchema {
 public:
  explicit PublishedSchema(const std::string& name) {
    const Json::Value document =
        read_json(std::string(KELOTLS_SCHEMAS) + "/" + name + ".schema.json");
    valijson::SchemaParser().populateSchema(valijson::adapters::JsonCppAdapter(document), schema_);
  }

  bool accepts(const Json::Value& value) {
    return valijson::Validator().validate(schema_, valijson::adapters::JsonCppAdapter(value),
                                          nullptr);
  }

 private:
  valijson::Schema schema_;
};

}  // namespace kelotls::test

#endif
