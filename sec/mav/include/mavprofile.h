/*
 * mavprofile.h - the profile runtime of libkormomav (C++ class layer).
 *
 * A properties configuration describes providers (adapters with instance
 * pools), groups (fail-over lists of providers) and profiles (ordered steps
 * over groups and other profiles). MavStartRuntime (kormomav.h) builds them;
 * a caller then takes a scan instance from a profile, scans, and receives
 * findings as exceptions of the MavCException family:
 *
 *     MavStartRuntime(nullptr, 0);
 *     std::unique_ptr<mav::MavInstance> s = mav::MavInstance::createInstance("DEFAULT");
 *     try { s->scan("/path/file"); }
 *     catch (const mav::MavCInfectionException& e) { ... e.what() ... }
 *     catch (const mav::MavCScanException& e) { ... }
 *     s.reset();
 *     MavStopRuntime();
 *
 * Names in the configuration are kept in their escaped form (bytes of 0x80 and
 * above written as \uXXXX, see ToHex); a profile name given to createInstance
 * is escaped before the lookup.
 *
 * Threads: MavStartRuntime and MavStopRuntime are called by one thread while
 * no other thread uses profiles. A MavInstance is used by one thread at a time.
 */
#ifndef MAVPROFILE_H
#define MAVPROFILE_H

#include <cstdint>
#include <exception>
#include <iosfwd>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "kormomav.h"


namespace mav {

struct MavNoEngineResult;

/* ---- Properties reader ---------------------------------------------------- */

/* Line-based key=value reader. Every space and tab of a line is removed; lines
 * starting with ';', '#' or "//" are comments; "[name]" lines are accepted and
 * ignored; a line needs a '=' with at least one character after its last '='.
 * The value starts after the first '=' and is cut to as many characters as the
 * absolute position of the first ';' in the line (k=v;x keeps "v;x"). Lines
 * split at '\n' only, so a '\r' stays at the end of the value. Escapes are not
 * decoded here. Not thread safe. */
class MAV_CLASS PropertyReader {
  public:
    /* One accepted line. */
    struct record {
        std::string key;
        std::string value;
    };

    /* Empty reader. */
    PropertyReader();
    /* Empty reader, then readfile(fileName); a missing file leaves it empty. */
    explicit PropertyReader(const std::string& fileName);
    ~PropertyReader();

    /* Replaces the record list with the file's lines and adds them to the map
     * (keys already in the map keep their values). false only when the file
     * cannot be opened. */
    bool readfile(const std::string& fileName);
    /* As readfile for length bytes of text in memory (an embedded NUL ends the
     * text). false when the working copy cannot be allocated or no line was
     * accepted. */
    bool readbuffer(const void* data, unsigned long length);
    /* Value of key (exact, case-sensitive), else defaultValue. */
    std::string get_string(const std::string& key, std::string defaultValue);
    /* Names registered under prefix by lines "prefix.NAME=NAME", in text order;
     * a registration written twice is listed twice. */
    std::vector<std::string> getKeys(const std::string& prefix);
    /* Copy of the key map (first occurrence of a key wins). */
    std::map<std::string, std::string> getMap();

  private:
    bool readstream(std::istream& in);

    std::vector<record> records;
    std::map<std::string, std::string> properties;
};

/* ---- Escapes ----------------------------------------------------------------- */

/* Bytes of 0x80 and above become "\u00XX" (upper-case hex); others are copied. */
MAV_CLASS std::string ToHex(const std::string& text);
/* Decodes "\u" + hex digits into the low 8 bits of the number (the parse is not
 * limited to four digits; the walk goes on six characters later); other bytes
 * are copied. */
MAV_CLASS std::string FromHex(const std::string& text);

/* ---- Exceptions ---------------------------------------------------------------- */

/* A scan result that is not clean. what(): for a negative code
 * Infection "TEXT" in object "OBJECT", otherwise
 * Scan error in object "OBJECT": "TEXT". Null texts count as empty. */
class MAV_CLASS MavCException : public std::exception {
  public:
    MavCException(MAV_RC rc, const char* text, const char* object);
    MavCException(const MavCException& other);
    ~MavCException() noexcept override;
    const char* what() const noexcept override;

    /* The code that caused the exception. */
    MAV_RC getRc() const { return rc; }
    /* The scanned object's name. */
    const std::string& getObject() const { return object; }
    /* The scan-error text (empty for a negative code). */
    const std::string& getScanError() const { return scanError; }
    /* The infection name (empty for a non-negative code). */
    const std::string& getInfection() const { return infection; }

  protected:
    MAV_RC rc;
    std::string message;
    std::string object;
    std::string scanError;
    std::string infection;
};

/* A scan error (positive code); getText() is the adapter's error text or
 * "ScanError". */
class MAV_CLASS MavCScanException : public MavCException {
  public:
    MavCScanException(MAV_RC rc, const char* text, const char* object);
    MavCScanException(const MavCScanException& other);
    ~MavCScanException() noexcept override;
    const char* what() const noexcept override;

    /* The scan-error text. */
    const std::string& getText() const { return text; }

  private:
    MAV_RC rc;
    std::string message;
    std::string object;
    std::string text;
};

/* An infection (negative code); getText() is the infection name or
 * "Infection". */
class MAV_CLASS MavCInfectionException : public MavCException {
  public:
    MavCInfectionException(MAV_RC rc, const char* text, const char* object);
    MavCInfectionException(const MavCInfectionException& other);
    ~MavCInfectionException() noexcept override;
    const char* what() const noexcept override;

    /* The infection name. */
    const std::string& getText() const { return text; }

  private:
    MAV_RC rc;
    std::string message;
    std::string object;
    std::string text;
};

/* ---- Parameters ------------------------------------------------------------------ */

/* One adapter parameter of the configuration, decoded. */
class MAV_CLASS MavParameter {
  public:
    /* Decodes the escaped name, type name and value; code and type come from
     * MavParamCode and MavParamType. */
    MavParameter(const std::string& name, const std::string& type, const std::string& value);
    /* Given code and type; only the value is decoded, both names stay null. */
    MavParameter(__vs_parameter_union code, VS_PARAMTYPE_T type, const std::string& value);
    virtual ~MavParameter();
    MavParameter(const MavParameter&) = delete;
    MavParameter& operator=(const MavParameter&) = delete;

    int32_t getCode() const { return code; }
    /* Decoded name, null when built from a code. */
    const char* getName() const { return name; }
    VS_PARAMTYPE_T getType() const { return type; }
    /* Decoded type name, null when built from a type. */
    const char* getTypeName() const { return typeName; }
    /* Decoded value, null for an empty value. */
    const char* getValue() const { return value; }

  private:
    int32_t code;
    char* name;
    VS_PARAMTYPE_T type;
    char* typeName;
    char* value;
};

/* ---- Scan instances ------------------------------------------------------------ */

/* What a profile hands out: C instances in step order plus the linkage rule.
 * linkage 0: the first instance that does not find the object clean decides;
 * linkage 1: the first instance that finds it clean decides. MAV_E_NOT_SCANNED
 * is accepted (becomes 0) only when every step that returned it accepts it by
 * its own configuration, and an accepted one does not end the walk. Destroying
 * it returns the C instances to their pools. */
class MAV_CLASS MavInstance {
  public:
    /* Empty instance with the profile's linkage (any value but 1 is 0). */
    explicit MavInstance(int linkage);
    virtual ~MavInstance();
    MavInstance(const MavInstance&) = delete;
    MavInstance& operator=(const MavInstance&) = delete;

    /* Appends a C instance (taken over: freed on destruction). Returns true. */
    bool add(MAV_INST inst);
    /* Sets every parameter on every C instance. Returns true. */
    bool setParameters(std::vector<MavParameter*>& params);
    /* The handle all C instances share (null when they differ); without C
     * instances the fallback handle. */
    MAV_HANDLE getMavHandle();
    /* Sets the fallback handle (a group's last unusable provider). */
    void setMavHandle(void* handle);

    /* A new scan instance of the named profile (null or empty: the standard
     * profile); null when the profile is unknown, inactive, not valid, or the
     * runtime has no profiles. */
    static std::unique_ptr<MavInstance> createInstance(const char* profileName);

    /* Scans a file through the C instances. Returns 0 for clean, also when
     * every step that answered MAV_E_NOT_SCANNED accepts that by its own
     * configuration (an accepted "not scanned" never ends the walk: the later
     * steps still run). Throws MavCInfectionException or MavCScanException
     * otherwise; without C instances (no engine) always MavCScanException with
     * MAV_E_NOT_SCANNED and a text naming the profile. */
    MAV_RC scan(const char* fileName);
    /* Scans length bytes in memory, results reported under objectName. With the
     * clean action configured the adapter works on a copy, bytes stay as they
     * are. Throws as scan(fileName). */
    MAV_RC scan(const unsigned char* bytes, unsigned long length, const char* objectName);
    /* scan(bytes, length, "profile"). */
    MAV_RC scan(const unsigned char* bytes, unsigned long length);
    /* Throws for a non-zero rc, with the texts of the C instance at the
     * current index (first infection or scan error); returns for 0 and for a
     * MAV_E_NOT_SCANNED that the current C instance accepts. Without C
     * instances MAV_E_NOT_SCANNED always throws. */
    void handleReturnCode(MAV_RC rc, const char* object);

    /* The C instances in step order. */
    const std::vector<MAV_INST>& getCInstances() const { return instances; }
    int32_t getLinkage() const { return linkage; }
    /* Index of the C instance that produced the last result of scan(). */
    int32_t getCurrent() const { return current; }
    /* Summary of the last scan(). */
    const MAV_SCANINFO& getScanInfo() const { return scanInfo; }
    /* Name of the profile that built the instance (empty when built by hand). */
    const std::string& getProfileName() const { return profileName; }

  private:
    friend class MavProfile;

    MAV_RC walk(uint32_t scanCode, const char* fileName, unsigned char* bytes, size_t* length,
                const char* object, bool alwaysInfo);
    MAV_INST currentInstance() const;
    /* Throws the exception for a non-zero rc, with the current instance's texts. */
    [[noreturn]] void raise(MAV_RC rc, const char* object);

    std::vector<MAV_INST> instances;
    int32_t linkage;
    int32_t current;
    MAV_SCANINFO scanInfo;
    MAV_HANDLE mavHandle;
    std::string profileName;
    /* The scan error of the last scan when no engine could be reached. */
    std::unique_ptr<MavNoEngineResult> noEngine;
    friend struct MavNoEngineResult;
};

/* ---- Providers, groups, profiles --------------------------------------------------- */

/* One adapter of the configuration: keys under
 * mav.provider.Pelmark.Adapters.NAME. */
class MAV_CLASS MavProvider {
  public:
    /* Reads the provider's keys and activates it when Active is "true". */
    explicit MavProvider(const std::string& name);
    /* Ends the adapter handle and frees names and parameters. */
    virtual ~MavProvider();
    MavProvider(const MavProvider&) = delete;
    MavProvider& operator=(const MavProvider&) = delete;

    /* on: starts the adapter handle, sets group and provider parameters, loads
     * the pool and names the handle; a refused start or pool load marks the
     * provider failed. off: inactive, not failed, handle kept. */
    void setActive(bool on);
    MAV_HANDLE getMavHandle();
    /* Takes one C instance from the handle into inst and gives it the
     * provider's parameters; adds nothing on failure (the group then tries its
     * next provider). */
    void getInstance(MavInstance& inst);

    const std::string& getName() const { return name; }
    const std::string& getGroup() const { return group; }
    int32_t getPoolMaxInstances() const { return poolMaxInstances; }
    bool isActive() const { return active; }
    bool isFailed() const { return failed; }

  private:
    std::string name;
    std::string group;
    int32_t poolMaxInstances;
    std::vector<MavParameter*> parameters;
    bool active;
    bool failed;
    MAV_HANDLE handle;
    char* adapterPath;
    char* cname;
};

/* Fail-over list of providers. */
class MAV_CLASS MavGroup {
  public:
    explicit MavGroup(const std::string& name);
    virtual ~MavGroup();
    MavGroup(const MavGroup&) = delete;
    MavGroup& operator=(const MavGroup&) = delete;

    /* Appends a provider name. */
    void addProvider(const std::string& name);
    /* Takes an instance from the first active, not failed provider that can
     * give one; each provider passed over leaves its handle as inst's fallback
     * handle. */
    void getInstance(MavInstance& inst);

    const std::string& getName() const { return name; }
    const std::vector<std::string>& getProviders() const { return providers; }
    /* The last provider looked at was not usable. */
    bool isFailed() const { return failed; }

  private:
    bool failed;
    std::string name;
    char* cname;
    std::vector<std::string> providers;
    std::vector<MavParameter*> parameters;
};

/* Ordered steps over groups and profiles: keys under mav.profile.NAME. */
class MAV_CLASS MavProfile {
  public:
    /* Reads the profile's keys (steps, reference, parameters, linkage). */
    explicit MavProfile(const std::string& name);
    ~MavProfile();
    MavProfile(const MavProfile&) = delete;
    MavProfile& operator=(const MavProfile&) = delete;

    /* Adds the C instances of every step to inst, applying this profile's
     * parameters after each sub-profile step. A profile that reaches itself
     * through its steps is marked failed and its cyclic step skipped. */
    void getInstance(MavInstance& inst);
    /* A new instance built from the steps; null when the profile has no
     * entries or refers to itself (then it is marked failed). */
    MavInstance* getInstance();
    /* getInstance() for the caller. */
    std::unique_ptr<MavInstance> getScanInstance();
    /* A profile instance handle around getInstance(); null when nothing was
     * built. Freed with MavFreeInstance. */
    MAV_INST getCInstance();
    /* Lookup like MavInstance::createInstance, returning a plain pointer. */
    static MavInstance* createInstance(const char* profileName);

    const std::string& getName() const { return name; }
    const std::string& getDescription() const { return description; }
    /* Step values in step order (a delegating profile: its reference). */
    const std::vector<std::string>& getEntries() const { return entries; }
    int32_t getLinkage() const { return linkage; }
    bool isActive() const { return active; }
    /* Result of the last instance build. */
    bool isFailed() const { return failed; }
    /* Shared handle of the instance after the last sub-profile step of a build. */
    MAV_HANDLE getMavHandle() const { return handle; }

  private:
    void walk(MavInstance& inst, bool top, std::vector<const MavProfile*>& path, bool& cycle);

    std::map<std::string, int> groupSteps;
    std::map<std::string, int> profileSteps;
    std::vector<std::string> entries;
    std::vector<MavParameter*> parameters;
    char* cname;
    std::string name;
    std::string description;
    MAV_HANDLE handle;
    int32_t linkage;
    bool active;
    bool failed;
};

}  // namespace mav

#endif /* MAVPROFILE_H */
