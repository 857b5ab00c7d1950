"""The three element types: topology, shape functions, rules, faces, boxes."""
