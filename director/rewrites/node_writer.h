// Writers of the few ONNX messages that the edits make from scratch: node
// attributes, nodes of the default domain and raw-data initializers. Shared by
// the head cubic rewrite, the warp rewrites and the compose v2 splice.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "director/rewrites/wire.h"

namespace le {

// Each appends one AttributeProto to attrs as a node attribute field (tag 2A).
// STRING: name, s (field 4), type 3.
void hcAttrS(GsBytes& attrs, std::string_view name, std::string_view value);
// INT: name, i (field 3), type 2.
void hcAttrI(GsBytes& attrs, std::string_view name, int64_t value);
// INTS: name, one unpacked field 8 per value, type 7.
void hcAttrIs(GsBytes& attrs, std::string_view name, const std::vector<int64_t>& values);

// Appends a node (tag 0A) with its inputs, one output, name, op type and the
// attribute bytes, in that field order. No domain field: the default domain.
void hcNode(GsBytes& graph, std::string_view opType, const std::vector<std::string>& inputs,
            std::string_view output, std::string_view name, const GsBytes& attributes);

// hcNode with a domain field (7) after the attributes: a node of a custom
// domain.
void fzNode(GsBytes& graph, std::string_view opType, std::string_view domain,
            const std::vector<std::string>& inputs, std::string_view output, std::string_view name,
            const GsBytes& attributes);

// True if the model imports the operator set domain (ModelProto field 8).
bool gsImportsDomain(const GsBytes& model, std::string_view domain);
// An opset_import field of domain at version 1, to append as the model's
// last field; empty if the model imports the domain already.
GsBytes gsOpsetImportIfMissing(const GsBytes& model, std::string_view domain);

// Appends an initializer (tag 2A): one dims field per dimension, data_type,
// name, raw_data holding size bytes from data.
void hcInit(GsBytes& graph, std::string_view name, int32_t dataType, const std::vector<int64_t>& dims,
            const void* data, size_t size);

// TensorProto data types the edits write.
inline constexpr int32_t kOnnxFloat = 1;
inline constexpr int32_t kOnnxInt64 = 7;

}  // namespace le
