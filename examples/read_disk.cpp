// Lists the disks of a store, then copies a byte range of one of them to a file.
//   read_disk STORE DISK OFFSET LENGTH OUT
#include <zxblk/zxblk.h>

#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

int main(int argc, char** argv) {
    if (argc != 6) {
        std::cerr << "usage: read_disk STORE DISK OFFSET LENGTH OUT\n";
        return 2;
    }
    try {
        std::cout << "zxblk " << zxblk::version() << "\n";
        zxblk::Store store = zxblk::Store::open(argv[1]);
        for (const zxblk::DiskInfo& d : store.disks()) {
            std::cout << d.name << ": " << d.size << " bytes\n";
            for (const zxblk::SnapshotInfo& s : d.snapshots)
                std::cout << "  snapshot " << s.number << ": " << zxblk::kindName(s.kind) << ", " << s.file << ", "
                          << zxblk::statusName(s.status) << (s.problem.empty() ? "" : ": " + s.problem) << "\n";
        }
        zxblk::Disk disk = zxblk::Disk::open(argv[1], argv[2]);
        std::vector<char> bytes(std::stoull(argv[4]));
        disk.read(std::stoull(argv[3]), bytes.size(), bytes.data());
        std::ofstream out(argv[5], std::ios::binary);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        out.close();
        if (!out) throw std::runtime_error(std::string(argv[5]) + ": cannot write it");
    } catch (const std::exception& e) {
        std::cerr << "read_disk: " << e.what() << "\n";
        return 1;
    }
    return 0;
}
