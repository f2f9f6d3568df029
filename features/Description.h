// What a description says, before anything is read or set by it: its features, what refers to what, and which of it the
// interpreter can't be trusted with. Made once; one thread at a time, since it remembers answers.
#pragma once

#include "features/FeatureTypes.h"

#include <arv.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace zuGevFeatures {

/// A node of the description. Names may be of nodes that don't exist.
struct Node {
    ArvGcNode* node = nullptr; ///< lives as long as the interpreter's document
    std::string tag;
    Kind kind = Kind::bytes;
    std::vector<std::string> evaluated; ///< what its value, bounds, address or access is made of
    std::vector<std::string> parts;     ///< of these, what its value and its address are made of
    std::vector<std::string> values;    ///< of those, what holds its value: what setting it writes
    std::vector<std::string> selected;
    std::vector<std::string> invalidators;
    std::vector<std::string> members; ///< of a category
    std::string address;              ///< of a register, where it is one number and nothing more
    std::string commandValue;
    std::string port; ///< of a register
    bool isRegister = false;
    bool hasLength = false;
    mutable std::optional<std::string> fault; ///< what defectOf has found
    std::string defect;                       ///< why neither it nor what depends on it can be used; empty if it can
};

class Description {
public:
    /// Walks the document and mends its formulas. `offsets` are those that its text has. Throws FeatureError where
    /// evaluating it might not end.
    Description(ArvGc* genicam, std::vector<std::string> offsets);

    const Node* find(const std::string& name) const;
    /// All that the categories list, categories included, each once, in their order.
    const std::vector<Feature>& features() const { return features_; }
    /// What is known of a node that no category need list.
    Feature describe(const std::string& name, const std::string& category = {}) const;

    /// Why the feature can't be used, taking in all that it depends on; empty if it can.
    std::string defectOf(const std::string& name) const;
    /// Whether that is because it comes with pictures or events, and not out of the camera's registers.
    bool isElsewhere(const std::string& name) const;
    /// Listed features that may change when this one is set, in the order of the list, without itself.
    std::vector<std::string> dependents(const std::string& name) const;
    /// Names that look like this one.
    std::vector<std::string> similar(const std::string& name) const;
    /// "Vendor Model", as the description calls itself.
    const std::string& model() const { return model_; }

private:
    void collect(ArvDomNode* parent, ArvGc* genicam, int depth);
    void collectStructure(ArvDomNode* element, ArvGc* genicam, int depth);
    void collectNode(ArvDomNode* element, ArvGc* genicam, const Node* structure, int depth);
    void collectProperties(ArvDomNode* element, Node& node, int depth);
    void checkReferences();
    void checkEffort();
    void list(const std::string& category, const std::string& path, std::map<std::string, bool>& seen, int depth);
    void gatherSelectors(const std::string& name, std::map<std::string, bool>& seen,
                         std::vector<std::string>& found) const;

    std::map<std::string, Node> nodes_;
    std::vector<std::string> offsets_;
    std::map<std::string, std::vector<std::string>> selectedBy_;
    std::map<std::string, std::vector<std::string>> usedBy_; ///< a change of the key may change these
    std::vector<Feature> features_;
    std::string model_;
};

} // namespace zuGevFeatures
