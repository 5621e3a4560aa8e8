#include "Vel/base/Exception.h"

#include "TlsEnds.h"

#include <filesystem>

using namespace MountTest;

namespace {

class TlsContextTest : public TlsTest {
protected:
    Mount::TlsFiles files_ = clientFiles();

    std::string error() const {
        try {
            TlsContext const context(TlsContext::Side::client, options(files_));
        } catch (Vel::Exception const& e) {
            return e.what();
        }
        return "none";
    }
    static std::string path(std::string const& file) { return certificates().path(file); }
};

TEST_F(TlsContextTest, NamesTheFileThatIsMissing) {
    for (auto const file : {&Mount::TlsFiles::certificate, &Mount::TlsFiles::key, &Mount::TlsFiles::authority}) {
        files_ = clientFiles();
        files_.*file = path("nowhere");
        EXPECT_EQ(error(), path("nowhere") + ": No such file or directory (ENOENT)");
        EXPECT_THROW(TlsContext(TlsContext::Side::server, options(files_)), Vel::ErrnoException);
    }
}

TEST_F(TlsContextTest, NamesAFolderThatIsTakenForAFile) {
    files_.authority = path("");
    EXPECT_EQ(error(), path("") + ": Is a directory (EISDIR)");
}

TEST_F(TlsContextTest, SaysWhichFileIsNotGiven) {
    files_ = {};
    EXPECT_EQ(error(), "TLS needs the file of a certificate, and none is given");
    files_.certificate = clientFiles().certificate;
    EXPECT_EQ(error(), "TLS needs the file of a key, and none is given");
    files_.key = clientFiles().key;
    EXPECT_EQ(error(), "TLS needs the file of an authority, and none is given");
    EXPECT_THROW(TlsContext(TlsContext::Side::server, options(files_)), Vel::RangeException);
}

TEST_F(TlsContextTest, NamesTheFileThatHoldsNothing) {
    std::string const empty = certificates().write("empty", "");
    for (auto const& [file, what] : {std::pair(&Mount::TlsFiles::certificate, "certificate"),
             std::pair(&Mount::TlsFiles::key, "key"), std::pair(&Mount::TlsFiles::authority, "certificate")}) {
        files_ = clientFiles();
        files_.*file = empty;
        EXPECT_EQ(error(), empty + ": no " + what + " in PEM form");
    }
}

TEST_F(TlsContextTest, NamesTheFilesThatAreMixedUp) {
    std::swap(files_.certificate, files_.key);
    EXPECT_EQ(error(), files_.certificate.stdString() + ": no certificate in PEM form");
    files_ = clientFiles();
    files_.key = files_.certificate;
    EXPECT_EQ(error(), files_.key.stdString() + ": no key in PEM form");
    files_ = clientFiles();
    files_.authority = files_.key;
    EXPECT_EQ(error(), files_.authority.stdString() + ": no certificate in PEM form");
}

TEST_F(TlsContextTest, NamesTheFileThatIsDamaged) {
    std::string text = readFile(files_.certificate.stdString());
    files_.certificate = certificates().write("damaged.pem", text.replace(100, 4, "!!!!"));
    EXPECT_EQ(error(), path("damaged.pem") + ": not what a PEM file holds: bad base64 decode");
    files_ = clientFiles();
    text = readFile(files_.key.stdString());
    files_.key = certificates().write("damaged.key", text.replace(100, 4, "!!!!"));
    EXPECT_TRUE(error().starts_with(path("damaged.key") + ": not what a key in PEM form looks like: ")) << error();
    text = readFile(files_.authority.stdString());
    files_ = clientFiles();
    files_.authority = certificates().write("damaged.pem", text.substr(0, text.size() / 2));
    EXPECT_TRUE(error().starts_with(path("damaged.pem") + ": ")) << error();
}

TEST_F(TlsContextTest, NamesBothFilesWhenTheKeyIsAnothers) {
    files_.key = serverFiles().key;
    EXPECT_EQ(
        error(), files_.key.stdString() + ": not the key of the certificate in " + files_.certificate.stdString());
}

TEST_F(TlsContextTest, AsksNobodyForThePasswordOfAKey) {
    files_.key = certificates().encryptedKey(files_);
    EXPECT_EQ(error(),
        files_.key.stdString() + ": the key is encrypted; nobody is asked for a password, so one without it is needed");
}

TEST_F(TlsContextTest, ReadsNoFileWithoutEnd) {
    files_.authority = "/dev/zero";
    EXPECT_EQ(error(), "/dev/zero: more than 1048576 bytes");
}

TEST_F(TlsContextTest, RefusesAWeakKey) {
    files_ = certificates().issue({.name = "weak", .hosts = {}, .bits = 1024});
    EXPECT_EQ(error(), files_.certificate.stdString() + ": the certificate is of no use: ee key too small");
}

TEST_F(TlsContextTest, TakesKeyAndCertificateFromOneFile) {
    files_.certificate =
        certificates().write("both.pem", readFile(files_.key.stdString()) + readFile(files_.certificate.stdString()));
    files_.key = files_.certificate;
    EXPECT_EQ(error(), "none");
}

TEST_F(TlsContextTest, RefusesWhatIsNoNameOfAHost) {
    TlsContext const context(TlsContext::Side::client, options(files_));
    auto const errorOf = [&](Vel::String const& host) -> std::string {
        try {
            context.channel(0, host);
        } catch (Vel::RangeException const& e) {
            return e.what();
        }
        return "none";
    };
    EXPECT_EQ(errorOf(""), "TLS needs to know which host it connects to");
    EXPECT_EQ(errorOf(Vel::String("a\0.example", 10)), "'a\\x00.example' is no name of a host");
    EXPECT_EQ(errorOf(std::string(256, 'a')), "'" + std::string(256, 'a') + "' is no name of a host");
    EXPECT_EQ(errorOf("state.example"), "none");
}

}  // namespace
