// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Writes a topology as a discovery of the fabric would print it.

#include <ostream>

#include "fabric/topology.h"

namespace fabric {
namespace {

struct KindText {
    const char* record;
    const char* guid;
};

KindText kind_text(NodeKind kind) {
    switch (kind) {
        case NodeKind::switch_node:
            return {"Switch", "switchguid"};
        case NodeKind::router:
            return {"Rt", "rtguid"};
        default:
            return {"Ca", "caguid"};
    }
}

class Writer {
  public:
    Writer(std::ostream& out, const Topology& topology) : out_(out), topology_(topology) {}

    void write() {
        const std::ios_base::fmtflags before = out_.flags(std::ios_base::dec);
        out_ << "#\n# Topology file: " << topology_.nodes.size() << " nodes\n#\n";
        write_origin();
        for (const Node& node : topology_.nodes) {
            write_node(node);
            for (std::size_t number = 1; number < node.ports.size(); ++number) {
                if (node.ports[number].linked)
                    write_link(node, number);
            }
        }
        out_.flags(before);
    }

  private:
    void write_origin() {
        if (topology_.origin < 0)
            return;
        const Node& node = topology_.nodes[static_cast<std::size_t>(topology_.origin)];
        out_ << std::hex << "# Initiated from node " << node.guid << " port "
             << node.ports[static_cast<std::size_t>(topology_.origin_port)].guid << "\n"
             << std::dec;
    }

    void write_node(const Node& node) {
        const bool is_switch = node.kind == NodeKind::switch_node;
        const KindText text = kind_text(node.kind);
        out_ << '\n' << text.guid << "=0x" << std::hex << node.guid;
        if (is_switch)
            out_ << '(' << node.ports[0].guid << ')';
        out_ << std::dec << '\n'
             << text.record << '\t' << node.ports.size() - 1 << " \"" << node.id << "\"\t\t# \""
             << node.name << '"';
        if (is_switch)
            out_ << " enhanced port 0 lid " << node.ports[0].lid << " lmc " << lmc(node.ports[0]);
        out_ << '\n';
    }

    void write_link(const Node& node, std::size_t number) {
        const Port& port = node.ports[number];
        const Node& far_node = topology_.nodes[static_cast<std::size_t>(port.remote_node)];
        const bool to_switch = far_node.kind == NodeKind::switch_node;
        const Port& far_port =
            far_node.ports[to_switch ? 0 : static_cast<std::size_t>(port.remote_port)];
        const bool of_switch = node.kind == NodeKind::switch_node;

        out_ << '[' << number << ']';
        if (!of_switch)
            write_guid(port);
        out_ << "\t\"" << far_node.id << "\"[" << port.remote_port << ']';
        if (!to_switch)
            write_guid(far_port);
        out_ << "\t\t# ";
        if (!of_switch)
            out_ << "lid " << port.lid << " lmc " << lmc(port) << ' ';
        out_ << '"' << far_node.name << "\" lid " << far_port.lid << ' ' << format_rate(port.rate);
        if (port.mtu != 0)
            out_ << " mtu " << (128u << port.mtu);
        out_ << '\n';
    }

    void write_guid(const Port& port) { out_ << '(' << std::hex << port.guid << std::dec << ')'; }
    static int lmc(const Port& port) { return port.lmc; }

    std::ostream& out_;
    const Topology& topology_;
};

}  // namespace

void write_topology(std::ostream& out, const Topology& topology) {
    Writer(out, topology).write();
}

}  // namespace fabric
