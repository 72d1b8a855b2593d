# Reads the formula that scripts/homebrew-formula has written, in Homebrew's place. It must name its archive
# and what it needs; when it installs, it must configure for its prefix, build and install in this order;
# and its own test must pass with the programs that were built.
#
#     formula.rb FOLDER UTILITY DAEMON

require "digest"
require "fileutils"
require "pathname"
require "tmpdir"

FOLDER, UTILITY, DAEMON = ARGV

def expect(what, found, expected)
  return if found == expected

  abort "#{what}: #{found.inspect} instead of #{expected.inspect}"
end

class Pathname
  def install(file)
    $installed << [to_s, file.to_s]
  end
end

class Formula
  class << self
    attr_reader :told, :needed, :test_block

    [:desc, :homepage, :url, :sha256].each do |word|
      define_method(word) { |text| (@told ||= {})[word] = text }
    end

    def depends_on(what)
      (@needed ||= []).concat(what.keys)
    end

    def test(&block)
      @test_block = block
    end
  end

  attr_reader :commands, :sbin, :testpath

  def initialize(scratch)
    @commands = []
    @sbin = scratch/"sbin"
    @testpath = scratch
  end

  def std_cmake_args
    ["-DCMAKE_INSTALL_PREFIX=/keg"]
  end

  def share
    Pathname("/keg/share")
  end

  def bash_completion
    Pathname("/keg/etc/bash_completion.d")
  end

  def system(*command)
    @commands << command
  end

  def shell_output(command, status = 0)
    output = `#{command}`
    expect(command, $?.exitstatus, status)
    output
  end

  def assert_match(text, output)
    abort "#{text.inspect} is not in #{output.inspect}" unless output.to_s.include?(text)
  end
end

$installed = []
load File.join(File.expand_path(FOLDER), "hxusbvctl.rb")

archive = Dir[File.join(FOLDER, "*.tar.gz")]
expect("archives", archive.size, 1)
expect("url", Hxusbvctl.told[:url], "https://archives.example/#{File.basename(archive[0])}")
expect("homepage", Hxusbvctl.told[:homepage], "https://project.example")
expect("sha256", Hxusbvctl.told[:sha256], Digest::SHA256.file(archive[0]).hexdigest)
expect("needed", Hxusbvctl.needed, ["boost", "cmake", "ninja"])

root = File.basename(archive[0], ".tar.gz")
project = IO.popen(["tar", "-xOf", archive[0], "#{root}/CMakeLists.txt"], &:read)
expect("version", "hxusbvctl-#{project[/^project\(hxusbvctl VERSION (\S+)/, 1]}", root)
files = IO.popen(["tar", "-tf", archive[0]], &:read)
expect("completion", files.include?("#{root}/completions/hxusbvctl.bash\n"), true)

Dir.mktmpdir do |scratch|
  formula = Hxusbvctl.new(Pathname(scratch))
  formula.install
  expect("programs that are run", formula.commands.map(&:first).uniq, ["cmake"])
  expect("steps", formula.commands.map { |words| words[1] }, ["-S", "--build", "--install"])
  expect("prefix", formula.commands[0].include?("-DCMAKE_INSTALL_PREFIX=/keg"), true)
  expect("installed besides", $installed,
         [["/keg/etc/bash_completion.d", "/keg/share/bash-completion/completions/hxusbvctl"]])

  FileUtils.mkdir(formula.sbin)
  FileUtils.ln_s(UTILITY, formula.sbin/"hxusbvctl")
  FileUtils.ln_s(DAEMON, formula.sbin/"hxusbvd-sim")
  formula.instance_eval(&Hxusbvctl.test_block)
end
